// A host that says which library it got, and fails unless that is the one it expected.
#include <cstdio>
#include <cstring>

#include <KivFramework/KivFramework.h>

// What the build system says it found; a project that builds the library itself has no other source
// than the headers.
#ifndef KIV_EXPECTED_VERSION
#define KIV_EXPECTED_VERSION KIV_VERSION
#endif

using namespace KivFramework;

int main() {
    InitializeLibrary(nullptr);
    // Needs zlib, which the host itself does not link.
    char* frame = nullptr;
    size_t frame_size = 0;
    size_t body_size = 0;
    KivSocket::encodeMessage("a", "body", &frame, &frame_size, &body_size);
    KivSocket::destroyEncodedMessage(frame);
    ShutdownLibrary();
    std::printf("KivFramework %s, headers %s, expected %s\n", GetLibraryVersion(), KIV_VERSION,
                KIV_EXPECTED_VERSION);
    return std::strcmp(GetLibraryVersion(), KIV_EXPECTED_VERSION) == 0 &&
                   std::strcmp(KIV_VERSION, KIV_EXPECTED_VERSION) == 0
               ? 0
               : 1;
}
