#pragma once

/// Makes the system's fallible calls fail at will, in the programs that compile fault_layer.cpp.
///
/// It defines functions of the C library under their own names, which then stand before the
/// originals for the whole program, the library under test and the libraries below it included.
namespace kiv_test {

/// What can fail. Every kind covers all the forms that its call comes in.
enum class fallible {
    memory, ///< malloc and its kin; under a sanitizer, whose business those are, `new`
    open,
    fopen,
    opendir,
    pipe,
    fork, ///< clone included
    thread,
    write, ///< of streams too
    read,
    send,
    recv,
    rename,
    epoll_create,
    epoll_add, ///< epoll_ctl, except where it only takes something away
    epoll_wait,
    account,    ///< getpwnam_r
    interfaces, ///< getifaddrs
};

/// Which calls fail, counted from 1 in all threads, and how.
struct fault {
    fallible call;
    int error;
    long first;
    bool for_ever; ///< every later call fails as well
};

/// Begins to count the calls of one kind and to fail them as told.
void arm(const fault& next);

/// Ends that.
///
/// \returns how many calls failed.
long disarm();

/// Makes `open` open `instead` where it is asked for `path`; null ends that.
///
/// Both are borrowed until then.
void redirect_open(const char* path, const char* instead);

/// Whether `live_blocks` knows anything: not under a sanitizer, which finds leaks by itself.
extern const bool counts_blocks;

/// How many blocks of memory the process holds.
long live_blocks();

} // namespace kiv_test
