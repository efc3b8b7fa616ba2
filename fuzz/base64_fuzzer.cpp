// Decodes texts into buffers of every size, beside the literal model, and encodes data into them.
//
// An input is two bytes with the size of the buffer, and the text or data.

#include "KivFramework/KivBase64.h"
#include "KivFramework/internal/base64_kernels.h"

#include "tests/oracle/base64_model.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace KivFramework;
using kiv_test::base64_decoding;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// Buffers of exactly the sizes in question, so that the sanitizer sees every byte beyond them.
std::vector<char> exactly(std::string_view text) {
    return {text.begin(), text.end()};
}

void decode(std::string_view text, std::size_t room) {
    const std::vector<char> in = exactly(text);
    const auto out = std::make_unique<char[]>(room);
    unsigned long size = room;
    const bool valid = KivBase64::Decode(in.data(), in.size(), out.get(), &size);
    require(base64_decoding{valid, std::string(out.get(), size)} ==
            kiv_test::base64_decode_model(text, room));
    require(std::all_of(out.get() + size, out.get() + room, [](char c) { return c == '\0'; }));
}

void decode_with_each_kernel(std::string_view text) {
    const std::vector<char> in = exactly(text);
    const std::size_t quartets = in.size() / 4;
    std::vector<char> expected(3 * quartets);
    const std::size_t done =
        internal::portable_base64_kernel.decode(in.data(), quartets, expected.data());
    for (const internal::base64_kernel* kernel : internal::base64_kernels()) {
        if (kernel->usable()) {
            std::vector<char> data(3 * quartets);
            require(kernel->decode(in.data(), quartets, data.data()) == done);
            require(data == expected);
        }
    }
}

void decode_into_new_buffer(std::string_view text) {
    const base64_decoding expected = kiv_test::base64_decode_model(text, text.size());
    char* data = nullptr;
    unsigned long size = 0;
    require(KivBase64::DecodeAlloc(text.data(), text.size(), &data, &size) == expected.valid);
    require((data != nullptr) == expected.valid);
    if (data != nullptr) {
        require(std::string(data, size + 1) == expected.data + '\0');
    }
    KivBase64::DeleteBuffer(&data);
}

void encode(std::string_view data, std::size_t room) {
    const std::vector<char> in = exactly(data);
    const std::string text = kiv_test::base64_encode_model(data);
    std::vector<char> out(room, '\x5A');
    KivBase64::Encode(in.data(), in.size(), out.data(), room);
    const std::string expected = (text + '\0').substr(0, room);
    require(std::string(out.data(), std::min(room, expected.size())) == expected);
    require(std::all_of(out.begin() + static_cast<std::ptrdiff_t>(expected.size()), out.end(),
                        [](char c) { return c == '\x5A'; }));
    decode(text, data.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::size_t room = data[0] + 256U * (data[1] % 16U);
    const std::string_view text(reinterpret_cast<const char*>(data) + 2, size - 2);

    decode(text, room);
    decode_with_each_kernel(text);
    decode_into_new_buffer(text);
    encode(text, room);
    return 0;
}
