#pragma once

#include "KivFramework/internal/unique_fd.h"

namespace kiv_test {

using KivFramework::internal::unique_fd;

/// A socket that is bound to a free port of 127.0.0.1.
///
/// \param type  SOCK_STREAM or SOCK_DGRAM.
unique_fd bound_to_loopback(int type);

/// The port that a socket is bound to.
int port_of(int socket);

/// Two connected TCP sockets.
struct tcp_connection {
    tcp_connection();

    unique_fd near;
    unique_fd far;
};

/// Two connected stream sockets that do not block, each with the smallest send buffer there is.
struct local_connection {
    local_connection();

    unique_fd near;
    unique_fd far;
};

/// A descriptor number that is not open.
int closed_descriptor();

} // namespace kiv_test
