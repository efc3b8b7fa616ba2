#include "KivFramework/KivServices.h"

#include "KivFramework/KivMemoryManager.h"
#include "KivFramework/platform/accounts.h"
#include "KivFramework/platform/login_manager.h"

#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

using namespace KivFramework;

bool KivServices::ForkAndDaemon(int parent_exit_code) {
    const pid_t child = ::fork();
    if (child == -1) {
        return false;
    }
    if (child != 0) {
        // Exit handlers and unflushed buffers are the daemon's now; running them here would run
        // them twice.
        ::_exit(parent_exit_code);
    }
    // No result of these is looked at: the daemon runs on in whatever state they leave.
    ::setsid();
    [[maybe_unused]] const int directory_result = ::chdir("/");
    ::umask(0);
    // Deliberate: the standard descriptors stay closed, so the daemon's next files take their
    // numbers; hosts reopen them as they need.
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    return true;
}

char* KivServices::CopyCurrentConsoleUsername() {
    const auto uid = platform::console_user();
    const auto account = uid ? platform::find_account(*uid) : std::nullopt;
    if (!account) {
        return nullptr;
    }
    const std::size_t size = account->name.size() + 1;
    void* const copy = KivMemoryManager::AllocateMemory(size);
    std::memcpy(copy, account->name.c_str(), size);
    return static_cast<char*>(copy);
}

bool KivServices::IsSomeoneLogged(int* /*first*/, int* /*second*/) {
    // Deliberate: the answer does not depend on the console; hosts take it as permission to go on.
    KivMemoryManager::ReleaseMemory(CopyCurrentConsoleUsername(), /*size=*/0);
    return true;
}
