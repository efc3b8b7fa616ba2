#pragma once

#include <optional>
#include <string>

#include <sys/types.h>

namespace KivFramework::platform {

/// One user account.
struct account {
    uid_t uid = 0;
    gid_t gid = 0;
    std::string name;
    std::string home;
    std::string shell;
};

/// The account called `name`; nothing when there is none or the accounts cannot be read.
std::optional<account> find_account(const char* name);

/// The account of the user `uid`; nothing when there is none or the accounts cannot be read.
std::optional<account> find_account(uid_t uid);

} // namespace KivFramework::platform
