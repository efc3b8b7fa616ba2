/// \file
/// The named jobs of the configuration: starting them, passing on what they print, ending them.
#pragma once

#include "configuration.h"
#include "event_loop.h"
#include "snapshot.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include <KivFramework/KivProcesses.h>

namespace agent {

/// A console waiting for the output of a job, as the job table sees it.
class job_listener {
public:
    virtual ~job_listener() = default;

    /// Whole lines that the job printed, or a piece of a very long one.
    virtual void on_output(const std::string& lines) = 0;

    /// The job ended; nothing follows. `exit_code` is 128 plus the signal for a killed one.
    virtual void on_end(const std::string& job_name, const std::string& outcome, int exit_code) = 0;

    /// False while the console is so far behind that the job had better wait.
    virtual bool keeps_up() const = 0;
};

/// All jobs and their children. Its calls and its handlers run in the loop's thread.
class job_table {
public:
    job_table(const std::map<std::string, job_definition>& definitions, event_loop& loop);

    ~job_table() { kill_all(); }
    job_table(const job_table&) = delete;
    job_table& operator=(const job_table&) = delete;

    /// Starts a job. Throws `refusal` when there is no such job, it runs already or cannot be
    /// started.
    ///
    /// \param listener  told what the job prints and how it ends, until `leave`.
    void start(const std::string& name, job_listener& listener);

    /// Kills a job with everything it started; its listener is told.
    ///
    /// Throws `refusal` when no such job runs.
    ///
    /// \returns the number of processes killed.
    int kill(const std::string& name);

    /// Kills every job that runs; the listeners are told.
    void kill_all();

    /// The console is gone: its job runs on, unheard.
    void leave(const job_listener& listener);

    /// The listener has caught up: its job is read again.
    void resume(const job_listener& listener);

    /// Reaps the children that have ended and tells their listeners. Call it after SIGCHLD.
    void reap();

    /// All jobs in the order of their names.
    std::vector<job_row> rows() const;

    int running_count() const;

private:
    struct job_record {
        std::string name;
        job_definition definition;
        std::string state = "not started";
        KivFramework::kivProcess* process = nullptr;
        int output = -1; // read end of the child's standard output and error
        bool output_paused = false;
        std::string line; // begun, not ended
        job_listener* listener = nullptr;
    };

    job_record& find(const std::string& name);
    bool open_output(job_record& started, int descriptor);
    void close_output(job_record& ended);
    std::size_t read_output(job_record& from);
    void on_readable(job_record& from);
    void drain_output(job_record& ended);
    void finish(job_record& ended, const std::string& outcome, int exit_code);

    std::map<std::string, job_record> jobs_;
    event_loop& loop_;
};

/// The processes under `pid`, one a line, children indented below their parent; empty when there
/// is no such process.
std::string process_tree_text(int pid);

} // namespace agent
