#include "jobs.h"

#include "agent_log.h"
#include "messages.h"

#include <array>
#include <cerrno>

#include <KivFramework/KivLibrary.h>
#include <KivFramework/KivLogger.h>
#include <KivFramework/KivSocket.h>
#include <KivFramework/KivStringHelper.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

constexpr std::size_t read_chunk = 16UL * 1024;
constexpr std::size_t longest_piece = 64UL * 1024;     // of a line that does not end
constexpr std::size_t most_at_the_end = 1024UL * 1024; // as much as a pipe can be made to hold
constexpr int not_forked = -1;
constexpr const char* no_descriptors = "not started: no descriptors left";
constexpr int exit_code_of_a_signal = 128; // plus its number, as shells have it
constexpr int kill_signal = 9;

// Everything a job's child gets besides its pipes. SpawnProcess takes the block over.
kivEnvironment* environment_for(const std::string& job_name, const std::string& user) {
    kivEnvironment* environment = KivProcesses::CreateEnvironment(/*copy_current=*/true);
    // Besides telling the job its name this keeps the block from ever being emptied below, where
    // removing the last variable of a block would not return.
    KivProcesses::SetEnvironmentValue(environment, "KIV_JOB", job_name);
    if (!user.empty()) {
        KivProcesses::ImpersonateUser_PurgeEnvironment(environment, user.c_str());
    }
    return environment;
}

struct ending {
    std::string outcome;
    int exit_code = 0;
};

// How a child ended, without reaping it; false while it runs. WaitProcess shifts the wait status
// and so reads a death by signal as exit code 0: this looks before it does.
bool has_ended(int pid, ending& how) {
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        how.outcome = "was reaped by somebody else";
        return true;
    }
    if (info.si_pid == 0) {
        return false;
    }
    if (info.si_code == CLD_EXITED) {
        how.exit_code = info.si_status;
        how.outcome = "ended with exit code " + std::to_string(info.si_status);
    } else {
        how.exit_code = exit_code_of_a_signal + info.si_status;
        how.outcome = "was ended by signal " + std::to_string(info.si_status);
    }
    return true;
}

int count_nodes(const _procs_tree* node) {
    int count = 1;
    if (node->children != nullptr) {
        for (_procs_tree** child = node->children; *child != nullptr; ++child) {
            count += count_nodes(*child);
        }
    }
    return count;
}

// A picture of the tree, then a kill: a process born in between escapes. Killing again until
// nothing is found would not help, as the root is gone and orphans hang elsewhere by then.
int kill_tree(kivProcess* process) {
    _procs_tree* tree = nullptr;
    if (!KivProcesses::CreateProcTreeSnapshot(KivProcesses::GetProcessPid(process), &tree)) {
        KivProcesses::TerminateProcess(process);
        return 1;
    }
    const int count = count_nodes(tree);
    KivProcesses::TerminateProcTree(tree);
    KivProcesses::DestroyProcTree(tree);
    return count;
}

void append_tree(const _procs_tree* node, std::size_t depth, std::string& text) {
    text += std::string(depth * 2, ' ') + node->name + " (" + std::to_string(node->pid) + ")\n";
    if (node->children != nullptr) {
        for (_procs_tree** child = node->children; *child != nullptr; ++child) {
            append_tree(*child, depth + 1, text);
        }
    }
}

} // namespace

agent::job_table::job_table(const std::map<std::string, job_definition>& definitions,
                            event_loop& loop)
    : loop_(loop) {
    for (const auto& [name, definition] : definitions) {
        job_record& added = jobs_[name];
        added.name = name;
        added.definition = definition;
    }
}

void agent::job_table::start(const std::string& name, job_listener& listener) {
    job_record& wanted = find(name);
    if (wanted.process != nullptr) {
        throw refusal("job " + wanted.name + " runs already (pid " +
                      std::to_string(KivProcesses::GetProcessPid(wanted.process)) + ")");
    }
    kivPipeHandles* pipes = KivProcesses::CreatePipes(/*merge_stderr=*/true);
    if (pipes == nullptr) {
        wanted.state = no_descriptors;
        throw refusal("job " + wanted.name + " cannot be started: no descriptors left");
    }
    // The ends that stay here must not reach the next job: it would hold this one's open.
    keep_from_children(pipes->parent_stdout_read);
    keep_from_children(pipes->parent_stdin_write);

    std::string program;
    std::string arguments; // stays as it is when the command line has none
    KivStringHelper::SplitCommandLines(wanted.definition.command, program, arguments);
    const std::string& user = wanted.definition.user;
    int error = not_forked;
    std::string error_text;
    wanted.process = KivProcesses::SpawnProcess(program.c_str(), arguments.c_str(), nullptr, pipes,
                                                environment_for(wanted.name, user), error,
                                                error_text, user.c_str(), nullptr);
    if (wanted.process == nullptr && error == not_forked) {
        KivProcesses::DeletePipes(pipes, /*close_handles=*/true);
        wanted.state = no_descriptors;
        throw refusal("job " + wanted.name + " cannot be started: no descriptors left");
    }
    // From here on the child's ends are closed in this process; the job reads nothing from us.
    const int output = pipes->parent_stdout_read;
    KivProcesses::ClosePipeHandle(pipes->parent_stdin_write);
    KivProcesses::DeletePipes(pipes, /*close_handles=*/false);
    if (wanted.process == nullptr) {
        KivProcesses::ClosePipeHandle(output);
        wanted.state = "not started: " + error_text;
        throw refusal("job " + wanted.name + " cannot be started: " + error_text);
    }
    const int pid = KivProcesses::GetProcessPid(wanted.process);
    wanted.state = "running (pid " + std::to_string(pid) + ")";
    wanted.listener = &listener;
    if (!open_output(wanted, output)) {
        wanted.listener = nullptr; // it gets the refusal instead
        kill_tree(wanted.process);
        finish(wanted, "was killed: its output cannot be watched",
               exit_code_of_a_signal + kill_signal);
        throw refusal("job " + wanted.name + " cannot be watched");
    }
    KivLogger::AddLogEntry(GetDefaultLogger(), notable, "jobs", "job %s started (pid %d)",
                           wanted.name.c_str(), pid);
}

int agent::job_table::kill(const std::string& name) {
    job_record& wanted = find(name);
    if (wanted.process == nullptr) {
        throw refusal("job " + wanted.name + " does not run");
    }
    const int count = kill_tree(wanted.process);
    finish(wanted, "was killed", exit_code_of_a_signal + kill_signal);
    return count;
}

void agent::job_table::kill_all() {
    for (auto& [name, job] : jobs_) {
        if (job.process != nullptr) {
            kill_tree(job.process);
            finish(job, "was killed because the agent ends", exit_code_of_a_signal + kill_signal);
        }
    }
}

void agent::job_table::leave(const job_listener& listener) {
    for (auto& [name, job] : jobs_) {
        if (job.listener == &listener) {
            resume(listener); // nobody holds the job back any more
            job.listener = nullptr;
        }
    }
}

void agent::job_table::resume(const job_listener& listener) {
    for (auto& [name, job] : jobs_) {
        if (job.listener == &listener && job.output_paused) {
            job.output_paused = false;
            loop_.resume(job.output);
        }
    }
}

void agent::job_table::reap() {
    for (auto& [name, job] : jobs_) {
        ending how;
        if (job.process != nullptr && has_ended(KivProcesses::GetProcessPid(job.process), how)) {
            long shifted_status = 0; // `how` knows more
            KivProcesses::WaitProcess(job.process, /*block=*/false, 0, shifted_status);
            finish(job, how.outcome, how.exit_code);
        }
    }
}

std::vector<agent::job_row> agent::job_table::rows() const {
    std::vector<job_row> rows;
    for (const auto& [name, job] : jobs_) {
        rows.push_back({name, job.state, job.definition.command, job.process != nullptr});
    }
    return rows;
}

int agent::job_table::running_count() const {
    int count = 0;
    for (const auto& [name, job] : jobs_) {
        count += job.process != nullptr ? 1 : 0;
    }
    return count;
}

agent::job_table::job_record& agent::job_table::find(const std::string& name) {
    const auto found = jobs_.find(KivStringHelper::ToLower(name)); // keys of a file have no case
    if (found == jobs_.end()) {
        throw refusal("the configuration has no job " + name);
    }
    return found->second;
}

bool agent::job_table::open_output(job_record& started, int descriptor) {
    errno = 0; // SetBlockStatus gives up when an old EBADF is still standing there
    KivSocket::SetBlockStatus(descriptor, /*blocking=*/false);
    started.output = descriptor;
    started.output_paused = false;
    started.line.clear();
    return loop_.watch(descriptor, [this, &started](readiness) { on_readable(started); });
}

void agent::job_table::close_output(job_record& ended) {
    if (ended.output != -1) {
        loop_.forget(ended.output);
        KivProcesses::ClosePipeHandle(ended.output);
        ended.output = -1;
    }
}

// Reads once and passes on what became whole. Returns how many bytes it read, 0 when there is
// nothing more for now.
std::size_t agent::job_table::read_output(job_record& from) {
    std::array<char, read_chunk> bytes{};
    // ReadPipe answers 0 for an empty pipe as for a closed one; here that is all the difference.
    const ssize_t count = ::read(from.output, bytes.data(), bytes.size());
    if (count == 0 || (count == -1 && errno != EAGAIN && errno != EINTR)) {
        close_output(from);
    }
    if (count <= 0) {
        return 0;
    }
    from.line.append(bytes.data(), static_cast<std::size_t>(count));
    std::size_t end = from.line.rfind('\n') + 1; // npos + 1 is 0: no line ends here
    if (end == 0 && from.line.size() >= longest_piece) {
        end = from.line.size();
    }
    if (end > 0 && from.listener != nullptr) {
        from.listener->on_output(from.line.substr(0, end));
    }
    from.line.erase(0, end);
    return static_cast<std::size_t>(count);
}

void agent::job_table::on_readable(job_record& from) {
    read_output(from);
    if (from.output != -1 && from.listener != nullptr && !from.listener->keeps_up()) {
        // The pipe fills, and the job waits in its write, as it would behind any slow reader.
        from.output_paused = true;
        loop_.pause(from.output);
    }
}

// What an ended child left in its pipe. A grandchild may still hold the other end and print on and
// on: the job is over with its process, so the reading has a limit.
void agent::job_table::drain_output(job_record& ended) {
    for (std::size_t total = 0; total < most_at_the_end && ended.output != -1;) {
        const std::size_t count = read_output(ended);
        if (count == 0) {
            break;
        }
        total += count;
    }
    if (!ended.line.empty() && ended.listener != nullptr) {
        ended.listener->on_output(ended.line + "\n");
    }
    ended.line.clear();
    close_output(ended);
}

void agent::job_table::finish(job_record& ended, const std::string& outcome, int exit_code) {
    drain_output(ended);
    KivProcesses::CloseProcess(ended.process);
    ended.process = nullptr;
    ended.state = outcome;
    KivLogger::AddLogEntry(GetDefaultLogger(), notable, "jobs", "job %s %s", ended.name.c_str(),
                           outcome.c_str());
    if (ended.listener != nullptr) {
        job_listener* const listener = ended.listener;
        ended.listener = nullptr;
        listener->on_end(ended.name, outcome, exit_code);
    }
}

std::string agent::process_tree_text(int pid) {
    _procs_tree* tree = nullptr;
    if (!KivProcesses::CreateProcTreeSnapshot(pid, &tree)) {
        return {};
    }
    std::string text;
    append_tree(tree, 0, text);
    KivProcesses::DestroyProcTree(tree);
    return text;
}
