#include "KivFramework/internal/base64_kernels.h"

#include "tests/oracle/base64_model.h"
#include "tests/support/guarded_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

namespace {

using namespace KivFramework::internal;
using kiv_test::guarded_buffer;

constexpr std::size_t most_quartets = 4096 / base64_quartet_size;
constexpr std::size_t most_groups = 4096 / base64_group_size + 1;
constexpr std::size_t alignments = 64; // no load or store is wider
constexpr char untouched = '\x5A';

std::string random_bytes(std::size_t count) {
    std::mt19937 random(11);
    std::string bytes(count, '\0');
    std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
    return bytes;
}

// One test for each kernel; those that the machine cannot run are skipped.
class Base64Kernel : public testing::TestWithParam<const base64_kernel*> {
protected:
    void SetUp() override {
        if (!kernel_.usable()) {
            GTEST_SKIP() << "this machine cannot run it";
        }
    }

    const base64_kernel& kernel_ = *GetParam();
};

TEST_P(Base64Kernel, EncodesLikeTheModelAtEveryLengthAndAlignment) {
    const std::string data = random_bytes(most_groups * base64_group_size);
    const std::string expected = kiv_test::base64_encode_model(data);
    std::string in(data.size() + alignments, '\0');
    std::string out(expected.size() + 2 * alignments + 1, untouched);
    for (std::size_t alignment = 0; alignment < alignments; ++alignment) {
        std::memcpy(in.data() + alignment, data.data(), data.size());
        for (std::size_t groups = 0; groups <= most_groups; ++groups) {
            const std::size_t size = groups * base64_quartet_size;
            char* const text = out.data() + 1 + (alignment * 5 + groups) % alignments;
            text[-1] = untouched;
            text[size] = untouched;
            kernel_.encode(in.data() + alignment, groups, text);
            ASSERT_EQ(std::memcmp(text, expected.data(), size), 0) << groups << ' ' << alignment;
            ASSERT_EQ(text[-1], untouched);
            ASSERT_EQ(text[size], untouched);
        }
    }
}

TEST_P(Base64Kernel, DecodesWhatTheModelEncodedAtEveryLengthAndAlignment) {
    const std::string expected = random_bytes(most_quartets * base64_group_size);
    const std::string text = kiv_test::base64_encode_model(expected);
    std::string in(text.size() + alignments, '\0');
    std::string out(expected.size() + 2 * alignments + 1, untouched);
    for (std::size_t alignment = 0; alignment < alignments; ++alignment) {
        std::memcpy(in.data() + alignment, text.data(), text.size());
        for (std::size_t quartets = 0; quartets <= most_quartets; ++quartets) {
            const std::size_t size = quartets * base64_group_size;
            char* const data = out.data() + 1 + (alignment * 5 + quartets) % alignments;
            data[-1] = untouched;
            data[size] = untouched;
            ASSERT_EQ(kernel_.decode(in.data() + alignment, quartets, data), quartets);
            ASSERT_EQ(std::memcmp(data, expected.data(), size), 0) << quartets << ' ' << alignment;
            ASSERT_EQ(data[-1], untouched);
            ASSERT_EQ(data[size], untouched);
        }
    }
}

TEST_P(Base64Kernel, EncodesEveryGroupOfBitsAtEveryPlace) {
    // A text in which each character of the alphabet comes at each place of the widest register.
    std::string characters;
    for (std::size_t i = 0; i < std::size_t{64} * 64; ++i) {
        characters += base64_alphabet[(i + i / 64) % 64];
    }
    std::string data(characters.size() / 4 * 3, '\0');
    ASSERT_EQ(kernel_.decode(characters.data(), characters.size() / 4, data.data()),
              characters.size() / 4);
    EXPECT_EQ(data, kiv_test::base64_decode_model(characters, characters.size()).data);
    std::string again(characters.size(), '\0');
    kernel_.encode(data.data(), data.size() / 3, again.data());
    EXPECT_EQ(again, characters);
}

TEST_P(Base64Kernel, StopsBeforeTheQuartetOfEveryInvalidByteAtEveryPosition) {
    const std::string data = random_bytes(200 * base64_group_size);
    std::string text = kiv_test::base64_encode_model(data);
    std::string out(data.size(), untouched);
    for (std::size_t position = 0; position < text.size(); ++position) {
        const std::size_t good = position / base64_quartet_size;
        const char valid = text[position];
        for (int byte = 0; byte < 256; ++byte) {
            text[position] = static_cast<char>(byte);
            if (base64_alphabet.find(text[position]) == std::string_view::npos) {
                ASSERT_EQ(kernel_.decode(text.data(), 200, out.data()), good)
                    << byte << " at " << position;
            }
        }
        ASSERT_EQ(std::memcmp(out.data(), data.data(), good * base64_group_size), 0);
        // Positions come in order, so that no byte beyond those of the last one was written yet.
        ASSERT_EQ(out.find_first_not_of(untouched, good * base64_group_size), std::string::npos);
        text[position] = valid;
    }
}

TEST_P(Base64Kernel, TouchesNothingOutsideItsBuffers) {
    const std::size_t text_room = most_groups * base64_quartet_size;
    guarded_buffer data(text_room);
    guarded_buffer text(text_room);
    for (std::size_t groups = 0; groups <= most_groups; ++groups) {
        const std::size_t data_size = groups * base64_group_size;
        const std::size_t text_size = groups * base64_quartet_size;
        kernel_.encode(data.end() - data_size, groups, text.end() - text_size);
        kernel_.encode(data.begin(), groups, text.begin());
        ASSERT_EQ(kernel_.decode(text.begin(), groups, data.begin()), groups);
        ASSERT_EQ(kernel_.decode(text.end() - text_size, groups, data.end() - data_size), groups);
    }
}

TEST_P(Base64Kernel, DecodesInPlace) {
    const std::string data = random_bytes(most_quartets * base64_group_size);
    const std::string text = kiv_test::base64_encode_model(data);
    for (std::size_t quartets = 0; quartets <= most_quartets; ++quartets) {
        std::string both = text;
        ASSERT_EQ(kernel_.decode(both.data(), quartets, both.data()), quartets);
        ASSERT_EQ(std::memcmp(both.data(), data.data(), quartets * base64_group_size), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(, Base64Kernel,
                         testing::ValuesIn(base64_kernels().begin(), base64_kernels().end()),
                         [](const testing::TestParamInfo<const base64_kernel*>& kernel) {
                             return std::string(kernel.param->name);
                         });

TEST(ChosenBase64Kernel, IsTheOneThatTheBuildNamesWhereTheMachineCanRunIt) {
    const base64_kernel* expected = nullptr;
    for (const base64_kernel* kernel : base64_kernels()) {
        if (kernel->usable() &&
            (expected == nullptr || kernel->name == std::string_view(KIV_BASE64_KERNEL))) {
            expected = kernel;
        }
    }
    EXPECT_EQ(chosen_base64_kernel().name, expected->name);
}

TEST(ChosenBase64Kernel, StaysTheSame) {
    EXPECT_EQ(&chosen_base64_kernel(), &chosen_base64_kernel());
}

TEST(Base64Kernels, EndWithOneThatEveryMachineCanRun) {
    EXPECT_EQ(base64_kernels().back()->name, "portable");
    EXPECT_TRUE(base64_kernels().back()->usable());
}

} // namespace
