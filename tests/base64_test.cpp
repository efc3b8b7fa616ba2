#include "KivFramework/KivBase64.h"

#include "tests/oracle/base64_model.h"
#include "tests/support/all_texts.h"
#include "tests/support/failing_allocation.h"
#include "tests/support/guarded_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace std::string_literals;
using namespace KivFramework::KivBase64;
using kiv_test::base64_decode_model;
using kiv_test::base64_decoding;
using kiv_test::base64_encode_model;
using kiv_test::guarded_buffer;

constexpr std::size_t longest = 4096;
constexpr std::size_t alignments = 64; // no load or store of a kernel is wider
constexpr char untouched = '\x5A';

std::string random_bytes(std::size_t count) {
    std::mt19937 random(static_cast<std::mt19937::result_type>(count + 1));
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
    return bytes;
}

// What a buffer of `size` bytes holds after an encoding.
std::string encoded_into(std::string_view data, std::size_t size) {
    std::string out(size + 8, untouched);
    Encode(data.data(), data.size(), out.data(), size);
    EXPECT_EQ(out.substr(size), std::string(8, untouched));
    return out.substr(0, size);
}

base64_decoding decoded_into(std::string_view text, std::size_t size) {
    std::string out(size + 8, untouched);
    unsigned long written = size;
    const bool valid = Decode(text.data(), text.size(), out.data(), &written);
    EXPECT_LE(written, size);
    EXPECT_EQ(out.substr(written), std::string(out.size() - written, untouched));
    return {valid, out.substr(0, written)};
}

base64_decoding decoded(std::string_view text) {
    return decoded_into(text, text.size() + 3);
}

struct allocated {
    unsigned long result;
    char* buffer;
};

allocated encode_alloc(std::string_view data) {
    allocated made = {};
    made.result = EncodeAlloc(data.data(), data.size(), &made.buffer);
    return made;
}

// The test vectors of RFC 4648, section 10.
constexpr std::pair<std::string_view, std::string_view> rfc_vectors[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

TEST(IsBase64, HoldsForExactlyThe64Characters) {
    const std::string_view alphabet = kiv_test::base64_model_alphabet;
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        EXPECT_EQ(isbase64(c), alphabet.find(c) != std::string_view::npos) << byte;
    }
}

TEST(IsBase64, DoesNotHoldForThePadding) {
    EXPECT_FALSE(isbase64('='));
}

TEST(Encode, GivesTheVectorsOfRfc4648) {
    for (const auto& [data, text] : rfc_vectors) {
        EXPECT_EQ(encoded_into(data, text.size()), text);
    }
}

TEST(Encode, GivesEveryCharacterOfTheAlphabet) {
    // The 48 bytes whose groups of six bits count from 0 to 63.
    std::string data;
    for (unsigned int i = 0; i < 64; i += 4) {
        const unsigned int bits = i << 18U | (i + 1) << 12U | (i + 2) << 6U | (i + 3);
        data += {static_cast<char>(bits >> 16U), static_cast<char>(bits >> 8U),
                 static_cast<char>(bits)};
    }
    EXPECT_EQ(encoded_into(data, 64), kiv_test::base64_model_alphabet);
}

TEST(Encode, AppendsANulOnlyWhenRoomRemains) {
    EXPECT_EQ(encoded_into("a", 4), "YQ==");
    EXPECT_EQ(encoded_into("a", 5), "YQ==\0"s);
    EXPECT_EQ(encoded_into("a", 6), "YQ==\0\x5A"s);
    EXPECT_EQ(encoded_into("abc", 4), "YWJj");
    EXPECT_EQ(encoded_into("abc", 5), "YWJj\0"s);
    EXPECT_EQ(encoded_into("", 1), "\0"s);
}

TEST(Encode, WritesNothingIntoABufferOfSizeZero) {
    Encode("abc", 3, nullptr, 0);
    Encode("", 0, nullptr, 0);
    EXPECT_EQ(encoded_into("abc", 0), "");
}

TEST(Encode, TakesNullForNoInput) {
    char out[2] = {untouched, untouched};
    Encode(nullptr, 0, out, sizeof(out));
    EXPECT_EQ(std::string(out, 2), "\0\x5A"s);
}

TEST(Encode, CutsTheTextAtTheByteWithoutANul) {
    for (std::size_t length = 0; length <= 70; ++length) {
        const std::string data = random_bytes(length);
        const std::string text = base64_encode_model(data);
        for (std::size_t size = 0; size <= text.size(); ++size) {
            ASSERT_EQ(encoded_into(data, size), text.substr(0, size)) << length;
        }
    }
}

TEST(Encode, BreaksNoLines) {
    const std::string text = encoded_into(random_bytes(3000), 4000);
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), isbase64));
}

TEST(Encode, EncodesNulsLikeAnyByte) {
    EXPECT_EQ(encoded_into("\0\0\0"s, 4), "AAAA");
    EXPECT_EQ(encoded_into("a\0b\0"s, 8), "YQBiAA==");
}

TEST(Encode, ReadsNoMoreOfAHugeLengthThanTheBufferTakes) {
    guarded_buffer data(6);
    std::memcpy(data.end() - 6, "foobar", 6);
    char out[8];
    Encode(data.end() - 6, ULONG_MAX, out, sizeof(out));
    EXPECT_EQ(std::string(out, 8), "Zm9vYmFy");
    Encode(data.end() - 3, ULONG_MAX - 1, out, 3);
    EXPECT_EQ(std::string(out, 8), "YmFvYmFy");
}

TEST(Encode, GivesTheSameForEveryLengthAtEveryAlignment) {
    const std::string source = random_bytes(longest);
    const std::string whole = base64_encode_model(source);
    std::string in(longest + alignments, '\0');
    std::string out(whole.size() + 3 * alignments, '\0');
    for (std::size_t length = 0; length <= longest; ++length) {
        const std::string tail =
            base64_encode_model(source.substr(length / 3 * 3, length % 3)) + '\0' + untouched;
        const std::size_t tail_start = length / 3 * 4;
        for (std::size_t alignment = 0; alignment < alignments; ++alignment) {
            std::memcpy(in.data() + alignment, source.data(), length);
            char* const text = out.data() + alignments + (alignment * 5 + length) % alignments;
            text[-1] = untouched;
            text[tail_start + tail.size() - 1] = untouched;
            Encode(in.data() + alignment, length, text, tail_start + tail.size() - 1);
            ASSERT_EQ(std::memcmp(text, whole.data(), tail_start), 0) << length << ' ' << alignment;
            ASSERT_EQ(std::memcmp(text + tail_start, tail.data(), tail.size()), 0);
            ASSERT_EQ(text[-1], untouched);
        }
    }
}

TEST(Encode, StaysWithinItsBuffersForEveryLength) {
    guarded_buffer data(longest);
    guarded_buffer text(longest * 3);
    std::memset(data.begin(), 'x', static_cast<std::size_t>(data.end() - data.begin()));
    for (std::size_t length = 0; length <= longest; ++length) {
        const std::size_t size = (length + 2) / 3 * 4;
        Encode(data.end() - length, length, text.end() - size, size);
        Encode(data.begin(), length, text.begin(), size);
        ASSERT_EQ(std::memcmp(text.end() - size, text.begin(), size), 0) << length;
    }
}

TEST(EncodeAlloc, ReturnsTheLengthOfTheTextPlusOne) {
    allocated made = encode_alloc("abc");
    EXPECT_EQ(made.result, 5U);
    EXPECT_STREQ(made.buffer, "YWJj");
    DeleteBuffer(&made.buffer);
}

TEST(EncodeAlloc, GivesAnEmptyTextForNoBytes) {
    allocated made = encode_alloc("");
    EXPECT_EQ(made.result, 1U);
    EXPECT_STREQ(made.buffer, "");
    DeleteBuffer(&made.buffer);
}

TEST(EncodeAlloc, EndsTheTextOfEveryLengthWithANul) {
    for (std::size_t length = 0; length < 200; ++length) {
        const std::string data = random_bytes(length);
        allocated made = encode_alloc(data);
        EXPECT_EQ(made.result, 4 * ((length + 2) / 3) + 1);
        EXPECT_EQ(std::string(made.buffer, made.result), base64_encode_model(data) + '\0');
        DeleteBuffer(&made.buffer);
    }
}

TEST(EncodeAlloc, AllocatesTwoBytesMoreThanTheText) {
    const std::string data = random_bytes(3000);
    {
        const kiv_test::failing_allocation above(4000 + 3);
        allocated made = encode_alloc(data);
        EXPECT_EQ(made.result, 4001U);
        DeleteBuffer(&made.buffer);
    }
    const kiv_test::failing_allocation exactly(4000 + 2);
    EXPECT_THROW(encode_alloc(data), std::bad_alloc);
}

TEST(EncodeAlloc, GivesNullAndZeroWhenTheSizeOverflows) {
    // From the first length whose text is longer than an unsigned long can say.
    for (const unsigned long length :
         {ULONG_MAX / 4 * 3 + 1, ULONG_MAX / 8 * 7, ULONG_MAX - 2, ULONG_MAX - 1, ULONG_MAX}) {
        char some = 'x';
        char* out = &some;
        EXPECT_EQ(EncodeAlloc("", length, &out), 0U) << length;
        EXPECT_EQ(out, nullptr) << length;
    }
}

TEST(EncodeAlloc, ThrowsAndLeavesTheOutputAloneWhenMemoryRunsOut) {
    char some = 'x';
    char* out = &some;
    const kiv_test::failing_allocation none(1);
    EXPECT_THROW(EncodeAlloc("abc", 3, &out), std::bad_alloc);
    EXPECT_EQ(out, &some);
}

TEST(Decode, GivesTheVectorsOfRfc4648) {
    for (const auto& [data, text] : rfc_vectors) {
        EXPECT_EQ(decoded(text), (base64_decoding{true, std::string(data)})) << text;
    }
}

TEST(Decode, TakesNullForNoInputAndNoOutput) {
    unsigned long size = 0;
    EXPECT_TRUE(Decode(nullptr, 0, nullptr, &size));
    EXPECT_EQ(size, 0U);
}

TEST(Decode, DeliversUnpaddedInputAndReturnsFalse) {
    EXPECT_EQ(decoded("YQ"), (base64_decoding{false, "a"}));
    EXPECT_EQ(decoded("YWI"), (base64_decoding{false, "ab"}));
    EXPECT_EQ(decoded("YWJjYQ"), (base64_decoding{false, "abca"}));
}

TEST(Decode, DeliversNothingOfASingleCharacter) {
    EXPECT_EQ(decoded("Y"), (base64_decoding{false, ""}));
    EXPECT_EQ(decoded("YWJjY"), (base64_decoding{false, "abc"}));
    EXPECT_EQ(decoded("="), (base64_decoding{false, ""}));
}

TEST(Decode, DeliversTheGoodCharactersOfABrokenQuartet) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"*WJj", ""},     {"Y*Jj", ""},      {"YW*j", "a"},       {"YWJ*", "ab"},
        {"=WJj", ""},     {"Y=Jj", ""},      {"YQ=j", "a"},       {"YQ=*", "a"},
        {"YQ=", "a"},     {"YW Jj", "a"},    {"YWJj*", "abc"},    {"YWJjY*", "abc"},
        {"YWJj=", "abc"}, {"YWJj==", "abc"}, {"YWJj====", "abc"},
    };
    for (const auto& [text, data] : cases) {
        EXPECT_EQ(decoded(text), (base64_decoding{false, std::string(data)})) << text;
    }
}

TEST(Decode, TakesPaddingOnlyAtTheVeryEnd) {
    EXPECT_EQ(decoded("YWJjYQ=="), (base64_decoding{true, "abca"}));
    EXPECT_EQ(decoded("YWJjYWI="), (base64_decoding{true, "abcab"}));
    EXPECT_EQ(decoded("YQ==YWJj"), (base64_decoding{false, "a"}));
    EXPECT_EQ(decoded("YWI=YWJj"), (base64_decoding{false, "ab"}));
    EXPECT_EQ(decoded("YQ==="), (base64_decoding{false, "a"}));
    EXPECT_EQ(decoded("YWI=="), (base64_decoding{false, "ab"}));
    EXPECT_EQ(decoded("YWI=\n"), (base64_decoding{false, "ab"}));
}

TEST(Decode, StopsAtWhiteSpaceAndLineBreaks) {
    for (const char c : " \t\r\n\v\f"s) {
        EXPECT_EQ(decoded("YWJj"s + c + "YWJj"), (base64_decoding{false, "abc"}));
        EXPECT_EQ(decoded("YWJj"s + c), (base64_decoding{false, "abc"}));
        EXPECT_EQ(decoded(c + "YWJj"s), (base64_decoding{false, ""}));
    }
}

TEST(Decode, StopsAtANulLikeAtAnyOtherByte) {
    EXPECT_EQ(decoded("YWJj\0"s), (base64_decoding{false, "abc"}));
    EXPECT_EQ(decoded("YW\0j"s), (base64_decoding{false, "a"}));
    EXPECT_EQ(decoded("YQ=\0"s), (base64_decoding{false, "a"}));
    EXPECT_EQ(decoded("\0WJj"s), (base64_decoding{false, ""}));
}

TEST(Decode, TakesAnyValueOfTheUnusedBits) {
    EXPECT_EQ(decoded("YR=="), (base64_decoding{true, "a"}));
    EXPECT_EQ(decoded("Yf=="), (base64_decoding{true, "a"}));
    EXPECT_EQ(decoded("YWL="), (base64_decoding{true, "ab"}));
}

TEST(Decode, ChecksWhatItDoesNotDeliver) {
    EXPECT_EQ(decoded_into("YWJjYWJj", 0), (base64_decoding{true, ""}));
    EXPECT_EQ(decoded_into("YWJjYWJj", 4), (base64_decoding{true, "abca"}));
    EXPECT_EQ(decoded_into("YWJjYWJ*", 4), (base64_decoding{false, "abca"}));
    EXPECT_EQ(decoded_into("YQ==", 0), (base64_decoding{true, ""}));
}

TEST(Decode, WritesAtMostTheRoomForEveryRoom) {
    for (std::size_t length = 0; length <= 70; ++length) {
        const std::string data = random_bytes(length);
        const std::string text = base64_encode_model(data);
        for (std::size_t room = 0; room <= length + 3; ++room) {
            ASSERT_EQ(decoded_into(text, room), (base64_decoding{true, data.substr(0, room)}));
        }
    }
}

TEST(Decode, FollowsTheRulesForAllShortTexts) {
    kiv_test::for_all_texts("Qw/=\n", 8, [](const std::string& text) {
        const std::size_t room = text.size() % 7;
        ASSERT_EQ(decoded_into(text, room), base64_decode_model(text, room)) << text;
        ASSERT_EQ(decoded_into(text, 6), base64_decode_model(text, 6)) << text;
    });
}

TEST(Decode, StopsAtEveryInvalidByteAtEveryPosition) {
    // Long enough for every loop of every kernel.
    const std::string data = random_bytes(450);
    const std::string text = base64_encode_model(data);
    std::string out(data.size() + 1, untouched);
    for (std::size_t position = 0; position < text.size(); ++position) {
        // Of the broken quartet, the bytes that its first characters make.
        const std::size_t good = position / 4 * 3 + std::max<std::size_t>(position % 4, 1) - 1;
        std::string broken = text;
        for (int byte = 0; byte < 256; ++byte) {
            broken[position] = static_cast<char>(byte);
            if (isbase64(broken[position]) || (byte == '=' && position + 1 == text.size())) {
                continue;
            }
            unsigned long size = data.size();
            ASSERT_FALSE(Decode(broken.data(), broken.size(), out.data(), &size));
            ASSERT_EQ(size, good) << byte << " at " << position;
            ASSERT_EQ(std::memcmp(out.data(), data.data(), good), 0);
        }
        // Positions come in order, so that no byte beyond those of the last one was written yet.
        ASSERT_EQ(out.find_first_not_of(untouched, good), std::string::npos);
    }
}

TEST(Decode, GivesTheSameForEveryLengthAtEveryAlignment) {
    const std::string data = random_bytes(longest);
    const std::string text = base64_encode_model(data.substr(0, longest / 4 * 3));
    std::string in(longest + alignments, '\0');
    std::string out(longest + 3 * alignments, '\0');
    for (std::size_t length = 0; length <= longest; ++length) {
        // Also the bytes of an unpadded end.
        const std::size_t bytes = length * 3 / 4;
        for (std::size_t alignment = 0; alignment < alignments; ++alignment) {
            std::memcpy(in.data() + alignment, text.data(), length);
            char* const decoded = out.data() + alignments + (alignment * 5 + length) % alignments;
            decoded[-1] = untouched;
            decoded[bytes] = untouched;
            unsigned long size = longest;
            ASSERT_EQ(Decode(in.data() + alignment, length, decoded, &size), length % 4 == 0);
            ASSERT_EQ(size, bytes);
            ASSERT_EQ(std::memcmp(decoded, data.data(), bytes), 0) << length << ' ' << alignment;
            ASSERT_EQ(decoded[-1], untouched);
            ASSERT_EQ(decoded[bytes], untouched);
        }
    }
}

TEST(Decode, StaysWithinItsBuffersForEveryLength) {
    guarded_buffer text(longest);
    guarded_buffer data(longest * 2);
    std::memset(text.begin(), 'x', static_cast<std::size_t>(text.end() - text.begin()));
    for (std::size_t length = 0; length <= longest; ++length) {
        const std::size_t bytes = length * 3 / 4;
        unsigned long size = bytes;
        ASSERT_EQ(Decode(text.end() - length, length, data.end() - bytes, &size), length % 4 == 0);
        ASSERT_EQ(size, bytes);
        ASSERT_EQ(Decode(text.begin(), length, data.begin(), &size), length % 4 == 0);
        ASSERT_EQ(std::memcmp(data.end() - bytes, data.begin(), bytes), 0) << length;
    }
}

TEST(Decode, WorksInPlace) {
    for (std::size_t length = 0; length <= 2000; ++length) {
        const std::string data = random_bytes(length);
        std::string text = base64_encode_model(data);
        unsigned long size = text.size();
        ASSERT_TRUE(Decode(text.data(), text.size(), text.data(), &size));
        ASSERT_EQ(text.substr(0, size), data);
    }
}

TEST(Decode, WorksInPlaceOnBrokenTextsAndWithLittleRoom) {
    const std::string whole = base64_encode_model(random_bytes(300));
    for (std::size_t fault = 0; fault <= whole.size(); ++fault) {
        for (const unsigned long room : {0UL, 1UL, 50UL, 200UL, 400UL}) {
            std::string text = whole;
            if (fault < text.size()) {
                text[fault] = '!';
            }
            std::string apart(room, '#');
            unsigned long expected_size = room;
            const bool expected = Decode(text.data(), text.size(), apart.data(), &expected_size);
            unsigned long size = room;
            ASSERT_EQ(Decode(text.data(), text.size(), text.data(), &size), expected) << fault;
            ASSERT_EQ(size, expected_size) << fault;
            ASSERT_EQ(text.substr(0, size), apart.substr(0, size)) << fault;
        }
    }
}

TEST(DecodeAlloc, EndsTheDataWithANul) {
    char* out = nullptr;
    unsigned long size = 99;
    ASSERT_TRUE(DecodeAlloc("YQBi", 4, &out, &size));
    EXPECT_EQ(size, 3U);
    EXPECT_EQ(std::string(out, 4), "a\0b\0"s);
    DeleteBuffer(&out);
}

TEST(DecodeAlloc, GivesAnEmptyTextForAnEmptyText) {
    char* out = nullptr;
    unsigned long size = 99;
    ASSERT_TRUE(DecodeAlloc("", 0, &out, &size));
    EXPECT_EQ(size, 0U);
    EXPECT_STREQ(out, "");
    DeleteBuffer(&out);
}

TEST(DecodeAlloc, TakesNullForTheSize) {
    char* out = nullptr;
    ASSERT_TRUE(DecodeAlloc("YWI=", 4, &out, nullptr));
    EXPECT_STREQ(out, "ab");
    DeleteBuffer(&out);
    EXPECT_FALSE(DecodeAlloc("YWI", 3, &out, nullptr));
    EXPECT_EQ(out, nullptr);
}

TEST(DecodeAlloc, GivesNullAndLeavesTheSizeAloneForABrokenText) {
    for (const std::string_view text : {"YQ", "Y", "YW Jj", "YQ==YQ==", "YWJj\n"}) {
        char some = 'x';
        char* out = &some;
        unsigned long size = 99;
        EXPECT_FALSE(DecodeAlloc(text.data(), text.size(), &out, &size)) << text;
        EXPECT_EQ(out, nullptr) << text;
        EXPECT_EQ(size, 99U) << text;
    }
}

TEST(DecodeAlloc, AllocatesThreeBytesForEachQuartetAndThreeMore) {
    const std::string text(4003, 'A');
    char* out = nullptr;
    {
        const kiv_test::failing_allocation above(3000 + 4);
        EXPECT_TRUE(DecodeAlloc(text.data(), 4000, &out, nullptr));
        DeleteBuffer(&out);
        EXPECT_FALSE(DecodeAlloc(text.data(), 4003, &out, nullptr));
    }
    const kiv_test::failing_allocation exactly(3000 + 3);
    EXPECT_THROW(DecodeAlloc(text.data(), 4000, &out, nullptr), std::bad_alloc);
}

TEST(DecodeAlloc, ThrowsAndLeavesTheOutputsAloneWhenMemoryRunsOut) {
    char some = 'x';
    char* out = &some;
    unsigned long size = 99;
    const kiv_test::failing_allocation none(1);
    EXPECT_THROW(DecodeAlloc("YWJj", 4, &out, &size), std::bad_alloc);
    EXPECT_EQ(out, &some);
    EXPECT_EQ(size, 99U);
}

TEST(DecodeAlloc, ThrowsAndLeavesTheOutputsAloneForMoreThanAnObjectCanHave) {
    const kiv_test::failing_allocation so_much(ULONG_MAX / 2);
    for (const unsigned long length :
         {ULONG_MAX, ULONG_MAX - 1, ULONG_MAX - 2, ULONG_MAX - 3, ULONG_MAX / 8 * 7}) {
        char some = 'x';
        char* out = &some;
        unsigned long size = 99;
        EXPECT_THROW(DecodeAlloc("", length, &out, &size), std::bad_alloc) << length;
        EXPECT_EQ(out, &some) << length;
        EXPECT_EQ(size, 99U) << length;
    }
}

TEST(DecodeAlloc, GivesBackWhatEncodeAllocMade) {
    for (std::size_t length = 0; length < 1000; ++length) {
        const std::string data = random_bytes(length);
        allocated text = encode_alloc(data);
        char* out = nullptr;
        unsigned long size = 0;
        ASSERT_TRUE(DecodeAlloc(text.buffer, text.result - 1, &out, &size));
        ASSERT_EQ(std::string(out, size), data);
        DeleteBuffer(&out);
        DeleteBuffer(&text.buffer);
    }
}

TEST(DecodeAlloc, RefusesTheNulThatEncodeAllocCounts) {
    allocated text = encode_alloc("abc");
    char* out = nullptr;
    EXPECT_FALSE(DecodeAlloc(text.buffer, text.result, &out, nullptr));
    DeleteBuffer(&text.buffer);
}

TEST(DeleteBuffer, DoesNotResetThePointer) {
    char* buffer = new char[3];
    const char* const before = buffer;
    DeleteBuffer(&buffer);
    EXPECT_EQ(buffer, before);
}

TEST(DeleteBuffer, IgnoresNull) {
    char* buffer = nullptr;
    DeleteBuffer(&buffer);
    EXPECT_EQ(buffer, nullptr);
    DeleteBuffer(nullptr);
}

} // namespace
