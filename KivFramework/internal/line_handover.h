#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>

#include <pthread.h>

namespace KivFramework::internal {

/// Hands finished lines from many producers to one writer, which takes and writes them in passes.
///
/// The list of waiting lines, its lock and the condition that tells the end of a pass are the
/// owner's. The writer takes all waiting lines at once and writes them while the producers go on,
/// so the lock is held for the exchange alone. Written lines give their storage to later ones.
class line_handover {
public:
    using line_list = std::list<std::string>;

    /// \param lock      guards the waiting lines and this object.
    /// \param pass_end  signalled to all who wait, under `lock`, at the end of every pass.
    line_handover(pthread_mutex_t* lock, pthread_cond_t* pass_end);
    ~line_handover();
    line_handover(const line_handover&) = delete;
    line_handover& operator=(const line_handover&) = delete;

    /// Producer: puts a copy of `line` at the back of `waiting`, after the end of the current or
    /// next pass when 256 or more lines wait already.
    void append(line_list& waiting, std::string_view line);

    /// Producer: waits for a whole pass, so that every line appended before is written.
    void flush();

    /// Says, under `lock`, whether a writer is there to wait for: set before it is started.
    void expect_writer(bool present) { writer_present_ = present; }

    /// Writer: begins a pass, in which it writes the lines moved to the empty `batch`.
    void begin_pass(line_list& waiting, line_list& batch);

    /// Writer: ends the pass and takes the storage of the written lines back.
    void end_pass(line_list& batch);

    /// Writer: sleeps until it is wanted, for 200 ms at most: by a producer that waits or finds
    /// many lines waiting, or by `wake_writer`.
    void idle();

    /// Ends the writer's sleep, or keeps it from the next one.
    void wake_writer();

    /// Writer: leaves for good; whoever waits for it goes on.
    void leave();

private:
    void wait_for_end_of(std::uint64_t pass);
    void linger_for_end_of(std::uint64_t pass) const;
    bool more_comes_soon() const;
    void wake_writer_locked();
    void add_to(line_list& waiting, std::string_view line);

    pthread_mutex_t* lock_;
    pthread_cond_t* pass_end_;
    pthread_cond_t wake_;
    bool writer_present_ = false;
    bool writer_sleeps_ = false;
    bool woken_ = false;
    std::uint64_t passes_begun_ = 0;
    std::atomic<std::uint64_t> passes_ended_ = 0; // changed under the lock, looked at without
    int producers_held_up_ = 0;                   // at the moment, waiting for the end of a pass
    bool held_producers_up_ = false;              // by its last pass; the writer's own
    std::atomic<std::size_t> waiting_ = 0; // the number of waiting lines, for a look without lock
    line_list spare_;
};

} // namespace KivFramework::internal
