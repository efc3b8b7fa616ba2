#pragma once

#include "tests/torture/fault_layer.h"

#include <string>
#include <vector>

namespace kiv_test {

/// One way to fail: the call and the error number it fails with.
struct way_to_fail {
    const char* name;
    fallible call;
    int error;
};

extern const way_to_fail no_memory, no_open, no_fopen, no_opendir, no_pipe, no_fork, no_thread,
    no_write, no_read, send_refused, send_broken, recv_empty, recv_broken, no_rename, no_queue,
    no_watch, wait_interrupted, no_account, no_interfaces;

/// Releases something at the end of the scope.
template <typename call>
class at_end {
public:
    explicit at_end(call release) : release_(release) {}
    ~at_end() { release_(); }
    at_end(const at_end&) = delete;
    at_end& operator=(const at_end&) = delete;

private:
    call release_;
};

/// Leaves the process one environment variable, as every one is several points.
void use_small_environment();

/// Whether the process has no thread but this one; never so under the thread sanitizer, which has
/// one of its own.
bool is_single_threaded();

/// What came over an attempt.
struct mishap {
    way_to_fail way;
    long number; ///< of the first call that failed, counted from 1
    bool for_ever;
    bool threw; ///< the attempt ended with `std::bad_alloc`
};

/// Something that a host does with the library and that must survive every failure of the system.
///
/// Each attempt runs in a process of its own: `prepare`, `attempt`, `finish`, then a judgement.
class scenario {
public:
    virtual ~scenario() = default;

    virtual const char* name() const = 0;
    virtual std::vector<way_to_fail> ways() const = 0;

    virtual void prepare() {}

    /// The calls under test, of which one may fail, and as little else as possible. It may throw
    /// `std::bad_alloc` where the library does, and releases what it holds in any case.
    virtual void attempt() = 0;

    /// Releases what `prepare` took and what the attempt left in this object, memory included.
    virtual void finish() {}

    /// What is wrong with the outcome of an attempt that something failed in; empty if nothing is.
    virtual std::string fault_in(const mishap& happened) = 0;

    /// What is wrong with the outcome of an attempt that nothing failed in; empty if nothing is.
    virtual std::string flaw() = 0;
};

/// Runs the scenario with its first fallible call failing, its second one, and so on until a run
/// has no failure; each way to fail once, and from there on for ever. After each of them it expects
/// the documented outcome, that nothing is leaked, and that the next attempt works.
///
/// Prints how many points there were.
void torture(scenario& tortured);

} // namespace kiv_test
