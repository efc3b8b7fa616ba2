// Runs a program, shows its output as it comes, and ends with its exit code. After the time limit
// the program and all that it started are killed.
//   run_job SECONDS PROGRAM [ARGUMENTS]
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include <KivFramework/KivFramework.h>
#include <poll.h>

using namespace KivFramework;

namespace {

void kill_tree(int pid) {
    _procs_tree* tree = nullptr;
    if (KivProcesses::CreateProcTreeSnapshot(pid, &tree)) {
        KivProcesses::TerminateProcTree(tree);
        KivProcesses::DestroyProcTree(tree);
    }
}

// Copies the output until its end; false when the time is over before it.
bool show_output(int descriptor, std::time_t deadline) {
    char buffer[4096];
    while (std::time(nullptr) < deadline) {
        pollfd output = {descriptor, POLLIN, 0};
        if (poll(&output, 1, /*timeout_ms=*/200) <= 0) {
            continue;
        }
        const int size = KivProcesses::ReadPipe(descriptor, buffer, sizeof(buffer));
        if (size <= 0) {
            return true;
        }
        std::fwrite(buffer, 1, static_cast<std::size_t>(size), stdout);
        std::fflush(stdout);
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s SECONDS PROGRAM [ARGUMENTS]\n", argv[0]);
        return 2;
    }
    InitializeLibrary(nullptr);
    kivPipeHandles* pipes = KivProcesses::CreatePipes(/*merge_stderr=*/true);
    if (pipes == nullptr) {
        std::perror("pipes");
        return 1;
    }
    kivEnvironment* environment = KivProcesses::CreateEnvironment(/*copy_current=*/true);
    KivProcesses::SetEnvironmentValue(environment, "PATH", "%PATH%:/opt/jobs/bin");

    int error = 0;
    std::string reason;
    kivProcess* child = KivProcesses::SpawnProcess(argv[2], argc > 3 ? argv[3] : "", "", pipes,
                                                   environment, error, reason, "", "");
    if (child == nullptr) {
        std::fprintf(stderr, "%s: %s\n", argv[2], reason.c_str());
        KivProcesses::DeletePipes(pipes, /*close_handles=*/false);
        return 1;
    }

    const std::time_t deadline = std::time(nullptr) + std::atol(argv[1]);
    const bool in_time = show_output(pipes->parent_stdout_read, deadline);
    if (!in_time) {
        kill_tree(KivProcesses::GetProcessPid(child));
    }
    long exit_code = 0;
    KivProcesses::WaitProcess(child, /*block=*/true, 0, exit_code);

    // The child's ends were closed by the start; the own ones are left.
    KivProcesses::ClosePipeHandle(pipes->parent_stdout_read);
    KivProcesses::ClosePipeHandle(pipes->parent_stdin_write);
    KivProcesses::DeletePipes(pipes, /*close_handles=*/false);
    KivProcesses::CloseProcess(child);
    ShutdownLibrary();
    return in_time ? static_cast<int>(exit_code) : 124;
}
