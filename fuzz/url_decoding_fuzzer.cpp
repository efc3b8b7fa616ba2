// Decodes a text, and encodes it and decodes that, and compares the results with those of the
// literal models.

#include "KivFramework/KivStringHelper.h"

#include "tests/oracle/escaping_model.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace KivFramework::KivStringHelper;

    const std::string text(data, data + size);
    const std::string encoded = EncodeURL(text);
    if (DecodeURL(text) != kiv_test::decode_url_model(text) ||
        encoded != kiv_test::encode_url_model(text) ||
        DecodeURL(encoded) != kiv_test::decode_url_model(encoded)) {
        std::abort();
    }
    return 0;
}
