#include "KivFramework/platform/accounts.h"

#include <cerrno>
#include <vector>

#include <pwd.h>

namespace KivFramework::platform {
namespace {

// Calls `look_up`, one of the reentrant queries, with a buffer that grows until the record fits.
template <typename query>
std::optional<account> read_account(const query& look_up) {
    constexpr std::size_t first_size = 1024;
    std::vector<char> texts(first_size);
    for (;;) {
        passwd record{};
        passwd* found = nullptr;
        const int error = look_up(&record, texts.data(), texts.size(), &found);
        if (error == ERANGE) {
            texts.resize(texts.size() * 2);
            continue;
        }
        if (error == EINTR) {
            continue;
        }
        if (found == nullptr) {
            return std::nullopt;
        }
        return account{found->pw_uid, found->pw_gid, found->pw_name, found->pw_dir,
                       found->pw_shell};
    }
}

} // namespace
} // namespace KivFramework::platform

using namespace KivFramework;

std::optional<platform::account> platform::find_account(const char* name) {
    return read_account([name](passwd* record, char* texts, std::size_t size, passwd** found) {
        return ::getpwnam_r(name, record, texts, size, found);
    });
}

std::optional<platform::account> platform::find_account(uid_t uid) {
    return read_account([uid](passwd* record, char* texts, std::size_t size, passwd** found) {
        return ::getpwuid_r(uid, record, texts, size, found);
    });
}
