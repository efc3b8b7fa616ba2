#pragma once

#include <cstddef>
#include <string>

#include <sys/types.h>

/// Decides how the process's next calls of `recv` and `send` go, in the programs that compile
/// scripted_socket.cpp. Calls beyond the script reach the system. One thread at a time.
namespace kiv_test {

/// The next `recv` receives `bytes`, or as many of them as it asked for.
void script_recv(std::string bytes);

/// The next `recv` does nothing but return `result` with `errno` set to `error`.
void script_recv(ssize_t result, int error);

/// The next `send` takes `size` bytes, or as many as there are.
void script_send(std::size_t size);

/// The next `send` does nothing but return `result` with `errno` set to `error`.
void script_send(ssize_t result, int error);

/// Hands over what scripted calls of `send` have taken since the last time.
std::string take_sent_bytes();

/// Forgets what is left of the script.
///
/// \returns how many scripted calls never came.
std::size_t drop_script();

} // namespace kiv_test
