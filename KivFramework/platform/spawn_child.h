#pragma once

#include "KivFramework/platform/accounts.h"

#include <optional>
#include <vector>

#include <sys/types.h>

namespace KivFramework::platform {

/// One `dup2` of the child.
struct descriptor_copy {
    int from;
    int to;
};

/// What a child is started with. The pointers are borrowed until `spawn_child` returns.
struct spawn_request {
    const char* path = nullptr;
    char* const* arguments = nullptr;    ///< null-terminated
    char* const* environment = nullptr;  ///< null-terminated; null hands on the caller's own
    std::vector<descriptor_copy> copies; ///< made first, in this order
    std::vector<int> closes;             ///< closed after the copies, in this order
    bool switch_identity = false;        ///< whether the child becomes `identity` before the exec
    std::optional<account> identity;     ///< with `switch_identity`: none fails that step
};

/// The step that a start failed at.
enum class spawn_step {
    none,
    status_pipe, ///< no child was made
    process,     ///< no child was made
    descriptors, ///< the child ended with status 1
    identity,    ///< the child ended with status 1
    exec,        ///< the child ended with status 255
};

struct spawn_result {
    pid_t pid = 0; ///< the child, also of one that failed and now waits to be reaped
    spawn_step failed = spawn_step::none;
    int error = 0; ///< the system's reason, meaningful with a failed step other than `identity`
};

/// Starts a program and returns once the child runs it or has failed to.
///
/// The child shares the caller's memory until then, so the cost does not depend on how much there
/// is; the calling thread is suspended meanwhile, all other threads run on. A child that ends
/// before it could report anything counts as started.
///
/// The caller has put cancellation off, so that no child is lost. Throws nothing but
/// `std::bad_alloc`, before any child exists.
spawn_result spawn_child(const spawn_request& request);

} // namespace KivFramework::platform
