#include "KivFramework/KivVersion.h"

const char* KivFramework::GetLibraryVersion() {
    return KIV_VERSION;
}
