// Shows the MD5 digest of a file, in hexadecimal digits and in Base64.
//   file_digest FILE
#include <cstdio>

#include <KivFramework/KivFramework.h>

using namespace KivFramework;

int main(int argc, char** argv) {
    std::FILE* file = argc == 2 ? std::fopen(argv[1], "rb") : nullptr;
    if (file == nullptr) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    md5_state_s state;
    KivMd5::md5_init(&state);
    unsigned char bytes[65536];
    while (const std::size_t size = std::fread(bytes, 1, sizeof(bytes), file)) {
        KivMd5::md5_append(&state, bytes, static_cast<int>(size));
    }
    const bool whole = std::ferror(file) == 0;
    std::fclose(file);
    if (!whole) {
        std::fprintf(stderr, "%s cannot be read\n", argv[1]);
        return 1;
    }

    unsigned char digest[16];
    char text[33];
    KivMd5::md5_finish(&state, digest);
    std::printf("%s  %s\n", KivMd5::md5_string(digest, text), argv[1]);

    char* encoded = nullptr;
    KivBase64::EncodeAlloc(reinterpret_cast<const char*>(digest), sizeof(digest), &encoded);
    std::printf("%s\n", encoded);
    KivBase64::DeleteBuffer(&encoded);
    return 0;
}
