#include "KivFramework/KivMd5.h"

#include "tests/oracle/md5_model.h"
#include "tests/support/guarded_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace {

using namespace KivFramework::KivMd5;

std::string random_bytes(std::size_t count) {
    std::mt19937 random(5);
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
    return bytes;
}

void append(md5_state_s& state, std::string_view data) {
    md5_append(&state, reinterpret_cast<const unsigned char*>(data.data()),
               static_cast<int>(data.size()));
}

std::string finish(md5_state_s& state) {
    unsigned char digest[16];
    md5_finish(&state, digest);
    return {std::begin(digest), std::end(digest)};
}

std::string digest_of(std::string_view data) {
    md5_state_s state;
    md5_init(&state);
    append(state, data);
    return finish(state);
}

std::string text_of(std::string digest) {
    char text[33];
    return md5_string(reinterpret_cast<unsigned char*>(digest.data()), text);
}

TEST(Md5State, KeepsItsLayout) {
    EXPECT_TRUE(std::is_standard_layout_v<md5_state_s>);
    EXPECT_EQ(offsetof(md5_state_s, count), 0U);
    EXPECT_EQ(offsetof(md5_state_s, chain), 8U);
    EXPECT_EQ(offsetof(md5_state_s, buffer), 24U);
    EXPECT_EQ(sizeof(md5_state_s), 88U);
    EXPECT_EQ(alignof(md5_state_s), 4U);
}

TEST(Md5State, IsOneTypeInBothNamespaces) {
    EXPECT_TRUE((std::is_same_v<KivFramework::md5_state_s, KivFramework::KivMd5::md5_state_s>));
}

TEST(Md5State, CountsBitsLowWordFirst) {
    md5_state_s state;
    md5_init(&state);
    append(state, "abc");
    EXPECT_EQ(state.count[0], 24U);
    EXPECT_EQ(state.count[1], 0U);
}

TEST(Md5State, MayBeCopiedToGoOnInTwoWays) {
    md5_state_s first;
    md5_init(&first);
    append(first, "mess");
    md5_state_s second = first;
    append(first, "age digest");
    append(second, "y");
    EXPECT_EQ(text_of(finish(first)), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(finish(second), kiv_test::md5_model("messy"));
}

TEST(Md5Init, StartsANewDigestInAUsedState) {
    md5_state_s state;
    std::memset(&state, 0x5A, sizeof(state));
    md5_init(&state);
    append(state, "abc");
    finish(state);
    md5_init(&state);
    EXPECT_EQ(text_of(finish(state)), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5Finish, GivesTheVectorsOfRfc1321) {
    const std::pair<std::string_view, std::string_view> vectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890"
         "1234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& [data, digest] : vectors) {
        EXPECT_EQ(text_of(digest_of(data)), digest) << data;
    }
}

TEST(Md5Finish, PadsEveryLength) {
    const std::string data = random_bytes(300);
    for (std::size_t length = 0; length <= data.size(); ++length) {
        const std::string part = data.substr(0, length);
        EXPECT_EQ(digest_of(part), kiv_test::md5_model(part)) << length;
    }
}

TEST(Md5Append, TakesPiecesOfEverySize) {
    const std::string data = random_bytes(1000);
    const std::string expected = kiv_test::md5_model(data);
    for (std::size_t size = 1; size <= data.size(); ++size) {
        md5_state_s state;
        md5_init(&state);
        for (std::size_t start = 0; start < data.size(); start += size) {
            append(state, std::string_view(data).substr(start, size));
        }
        EXPECT_EQ(finish(state), expected) << size;
    }
}

TEST(Md5Append, TakesEveryCutInTwo) {
    const std::string data = random_bytes(200);
    const std::string expected = kiv_test::md5_model(data);
    for (std::size_t cut = 0; cut <= data.size(); ++cut) {
        md5_state_s state;
        md5_init(&state);
        append(state, data.substr(0, cut));
        append(state, data.substr(cut));
        EXPECT_EQ(finish(state), expected) << cut;
    }
}

TEST(Md5Append, FeedsNothingForLengthsOfZeroAndBelow) {
    md5_state_s state;
    md5_init(&state);
    append(state, "ab");
    for (const int length : {0, -1, -64, INT_MIN}) {
        md5_append(&state, nullptr, length);
        EXPECT_EQ(state.count[0], 16U);
        EXPECT_EQ(state.count[1], 0U);
    }
    append(state, "c");
    EXPECT_EQ(text_of(finish(state)), "900150983cd24fb0d6963f7d28e17f72");
}

TEST(Md5Append, TakesNulsAndHighBytesLikeAnyByte) {
    const std::string data("\0\xFF\0\x80", 4);
    EXPECT_EQ(digest_of(data), kiv_test::md5_model(data));
}

TEST(Md5Append, CarriesTheCountOfBitsIntoItsHighWord) {
    // Where a digest of 2^29 - 64 zero bytes stands, and then 128 more.
    md5_state_s state = {
        {0xFFFFFE00U, 0}, {0x459D57E0U, 0x8FFBE704U, 0xEB9E8C71U, 0x14838F80U}, {}};
    const std::string zeros(64, '\0');
    append(state, zeros);
    EXPECT_EQ(state.count[0], 0U);
    EXPECT_EQ(state.count[1], 1U);
    append(state, zeros);
    EXPECT_EQ(text_of(finish(state)), "86d6d3e2fba02caee5d80c9d0246acf5");
}

TEST(Md5Append, LetsTheCountOfBitsWrapAround) {
    md5_state_s state;
    md5_init(&state);
    state.count[0] = 0xFFFFFFF8U;
    state.count[1] = 0xFFFFFFFFU;
    append(state, "ab");
    EXPECT_EQ(state.count[0], 8U);
    EXPECT_EQ(state.count[1], 0U);
}

TEST(Md5Append, ReadsNothingBeyondTheData) {
    kiv_test::guarded_buffer data(4096);
    std::memset(data.begin(), 'x', 4096);
    for (int length = 0; length <= 200; ++length) {
        md5_state_s state;
        md5_init(&state);
        md5_append(&state, reinterpret_cast<unsigned char*>(data.end()) - length, length);
        EXPECT_EQ(finish(state),
                  kiv_test::md5_model(std::string(static_cast<std::size_t>(length), 'x')));
    }
}

TEST(Md5Append, TakesDataAtAnyAlignment) {
    const std::string data = random_bytes(64 + 192);
    for (std::size_t start = 0; start < 64; ++start) {
        EXPECT_EQ(digest_of(std::string_view(data).substr(start, 192)),
                  kiv_test::md5_model(data.substr(start, 192)));
    }
}

TEST(Md5Process, TransformsTheChainAlone) {
    const std::string block = random_bytes(64);
    const auto* const bytes = reinterpret_cast<const unsigned char*>(block.data());
    md5_state_s appended;
    md5_init(&appended);
    append(appended, block);

    md5_state_s processed;
    md5_init(&processed);
    md5_process(&processed, bytes);
    EXPECT_TRUE(std::equal(processed.chain, processed.chain + 4, appended.chain));
    EXPECT_EQ(processed.count[0], 0U);
    EXPECT_EQ(processed.count[1], 0U);
}

TEST(Md5String, WritesLowerCaseDigitsAndANul) {
    unsigned char digest[16] = {0x00, 0x01, 0x0F, 0x10, 0x7F, 0x80, 0x9A, 0xAB,
                                0xBC, 0xCD, 0xDE, 0xEF, 0xF0, 0xFE, 0xFF, 0x55};
    char text[34];
    std::memset(text, 'x', sizeof(text));
    EXPECT_EQ(md5_string(digest, text), text);
    EXPECT_STREQ(text, "00010f107f809aabbccddeeff0feff55");
    EXPECT_EQ(text[33], 'x');
}

TEST(Md5String, GivesTheDigestOfTheEmptyInput) {
    EXPECT_EQ(text_of(digest_of("")), "d41d8cd98f00b204e9800998ecf8427e");
}

} // namespace
