// Children that are started and killed while the system fails.

#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivProcesses.h"

#include "tests/support/standard_streams.h"
#include "tests/support/temp_directory.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"
#include "tests/torture/torture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <list>
#include <optional>
#include <string>
#include <string_view>

#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace KivFramework;
using namespace KivFramework::KivProcesses;
using kiv_test::at_end;

class spawn_with_pipes : public kiv_test::scenario {
public:
    spawn_with_pipes() {
        kiv_test::use_small_environment();
        // No other thread asks. NOLINTBEGIN(concurrency-mt-unsafe)
        user_ = ::getpwuid(::getuid())->pw_name;
        ::getpwnam("nobody by this name"); // loads all sources of accounts, which stay
        // NOLINTEND(concurrency-mt-unsafe)
    }

    const char* name() const override { return "spawn_with_pipes"; }

    std::vector<kiv_test::way_to_fail> ways() const override {
        using namespace kiv_test;
        return {no_memory, no_pipe, no_fork, no_write, no_read, no_account};
    }

    void prepare() override {
        logger_.emplace();
        KivLogger::SetLoggerBasePath(&*logger_, directory_.path());
        KivLogger::CreateLogger(&*logger_, 1, /*flags=*/4);
        SetDefaultLogger(&*logger_);
        kiv_test::write_file(directory_.file("default.log"), "");
        merged_ = talked_ = refused_ = became_user_ = apart_ = false;
        lost_child_ = ended_unreported_ = false;
        write_error_ = read_error_ = 0;
        errors_[0] = errors_[1] = errors_[2] = -1;
    }

    void attempt() override {
        talk_to_cat();
        start_missing_program();
        start_as_user();
        kivPipeHandles* const pipes = CreatePipes(false);
        const at_end deleted([pipes] { DeletePipes(pipes, true); });
        apart_ = pipes != nullptr;
    }

    void finish() override {
        RemoveDefaultLogger();
        KivLogger::DestroyLogger(&*logger_);
        logger_.reset();
        std::string().swap(error_text_);
    }

    std::string fault_in(const kiv_test::mishap& happened) override {
        if (lost_child_) {
            return "a child that was started could not be waited for";
        }
        if (happened.threw) {
            return "";
        }
        switch (happened.way.call) {
        case kiv_test::fallible::account:
        case kiv_test::fallible::memory: // of the look-up, which may find another source
            if (flaw().empty()) {
                return "";
            }
            return errors_[2] == 0 && error_text_ == "Unable to impersonate user " + user_
                       ? ""
                       : "the child became somebody unknown";
        case kiv_test::fallible::fork:
            return "it went on without a process";
        case kiv_test::fallible::pipe:
            return refuses_pipes_as_documented(happened) ? "" : "a failed pipe gave another result";
        case kiv_test::fallible::write:
            return flaw().empty() || (write_error_ == ENOSPC && has_all_but_talk())
                       ? ""
                       : "a failed write gave another result";
        case kiv_test::fallible::read:
            return reads_as_documented() ? "" : "a failed read gave another result";
        default:
            return "";
        }
    }

    std::string flaw() override {
        return talked_ && has_all_but_talk() && !apart_ ? "" : "a child was not started";
    }

private:
    bool has_all_but_talk() const { return merged_ && refused_ && became_user_; }

    bool refuses_pipes_as_documented(const kiv_test::mishap& happened) {
        // The first two are those to and from the child.
        const bool for_child = happened.number <= 2;
        // A start without a pipe for the report makes no child and so gives no reason.
        const bool no_child_no_reason =
            errors_[0] == -1 && refused_ == (errors_[1] == ENOENT) && errors_[2] == -1;
        if (merged_ == for_child || !no_child_no_reason) {
            return false;
        }
        // Only the third of three pipes apart may be lacking, which is not logged.
        return apart_ ? talked_ && has_all_but_talk() : is_logged(EMFILE);
    }

    bool is_logged(int error) const {
        const std::string log = kiv_test::read_file(directory_.file("default.log"));
        return log.find("Error code: " + std::to_string(error) + "\n") != std::string::npos;
    }

    // Without a report from it a child counts as started, whatever came of it.
    bool reads_as_documented() const {
        return merged_ && became_user_ && (refused_ || ended_unreported_) &&
               (talked_ || read_error_ == EIO);
    }

    kivProcess* spawn(int number, const char* path, kivPipeHandles* pipes, bool environment,
                      const char* user) {
        kivEnvironment* block = nullptr;
        if (environment) {
            block = CreateEnvironment(true);
        }
        return SpawnProcess(path, "", "", pipes, block, errors_[number], error_text_, user, "");
    }

    long exit_code_of(kivProcess* process) {
        const at_end closed([process] { CloseProcess(process); });
        long code = -1;
        lost_child_ = lost_child_ || WaitProcess(process, true, 0, code) != 1;
        return code;
    }

    void talk_to_cat() {
        kivPipeHandles* const pipes = CreatePipes(true);
        if (pipes == nullptr) {
            return;
        }
        merged_ = true;
        bool started = false;
        const at_end deleted([pipes, &started] {
            if (!started) {
                DeletePipes(pipes, true);
                return;
            }
            ClosePipeHandle(pipes->parent_stdout_read);
            DeletePipes(pipes, false);
        });
        kivProcess* const cat = spawn(0, "/bin/cat", pipes, true, "");
        if (cat == nullptr) {
            return;
        }
        started = true;
        write_to(pipes->parent_stdin_write, "hello");
        ClosePipeHandle(pipes->parent_stdin_write);
        const bool ended_well = exit_code_of(cat) == 0;
        talked_ = is_next_in(pipes->parent_stdout_read, "hello") && ended_well;
    }

    void write_to(int pipe, std::string_view text) {
        int size = 1;
        for (; !text.empty() && size > 0; text.remove_prefix(static_cast<std::size_t>(size))) {
            size = WritePipe(pipe, text.data(), static_cast<unsigned int>(text.size()));
        }
        write_error_ = size == -1 ? errno : 0;
    }

    bool is_next_in(int pipe, std::string_view text) {
        std::string bytes;
        char buffer[16];
        int size = 1;
        while (bytes.size() < text.size() && size > 0) {
            size = ReadPipe(pipe, buffer, sizeof(buffer));
            read_error_ = size == -1 ? errno : 0;
            bytes.append(buffer, static_cast<std::size_t>(std::max(size, 0)));
        }
        return bytes == text;
    }

    void start_missing_program() {
        kivProcess* const process =
            spawn(1, "/nonexistent/a program that is not there", nullptr, false, "");
        if (process == nullptr) {
            // Without memory for it there is no text.
            refused_ = errors_[1] == ENOENT &&
                       (error_text_ == "No such file or directory" || error_text_.empty());
            return;
        }
        ended_unreported_ = exit_code_of(process) == 255;
    }

    void start_as_user() {
        if (kivProcess* const process = spawn(2, "/bin/true", nullptr, true, user_.c_str())) {
            became_user_ = exit_code_of(process) == 0;
        }
    }

    // A pipe under their numbers would be closed in the child.
    const kiv_test::standard_streams_taken streams_taken_;
    kiv_test::temp_directory directory_;
    std::string user_;
    std::optional<kivLogger> logger_;
    bool merged_ = false;
    bool talked_ = false;
    bool refused_ = false;
    bool became_user_ = false;
    bool apart_ = false;
    bool lost_child_ = false;
    bool ended_unreported_ = false;
    int write_error_ = 0;
    int read_error_ = 0;
    int errors_[3] = {};
    std::string error_text_;
};

// A child, its child and its child's child; what is left of them ends with the object.
class generations {
public:
    void start() {
        // Whoever loses its parent comes to this process, which buries it.
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        eldest_ = ::fork();
        if (eldest_ == 0) {
            live(ready[1], 2);
        }
        ::close(ready[1]);
        for (pid_t& pid : pids_) {
            EXPECT_EQ(kiv_test::read_fully(ready[0], &pid, sizeof(pid)), sizeof(pid));
        }
        ::close(ready[0]);
    }

    pid_t eldest() const { return eldest_; }
    const pid_t* begin() const { return std::begin(pids_); }
    const pid_t* end() const { return std::end(pids_); }

    bool all_have_ended() const {
        return kiv_test::wait_until([this] { return count_ended() == 3; }, std::chrono::seconds(5));
    }

    bool none_has_ended() const { return count_ended() == 0; }

    void bury() {
        for (const pid_t pid : pids_) {
            ::kill(pid, SIGKILL);
        }
        while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
        }
    }

private:
    // A process that has lost its parents becomes this one's child only when it can be seen here.
    int count_ended() const {
        int count = 0;
        for (const pid_t pid : pids_) {
            siginfo_t info{};
            const bool is_child =
                ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0;
            count += (is_child ? info.si_pid == pid : ::kill(pid, 0) != 0) ? 1 : 0;
        }
        return count;
    }

    [[noreturn]] static void live(int ready, int descendants) {
        pid_t self = ::getpid();
        while (kiv_test::write_fully(ready, &self, sizeof(self)) && descendants > 0 &&
               ::fork() == 0) {
            --descendants;
            self = ::getpid();
        }
        ::close(ready);
        for (;;) {
            ::pause();
        }
    }

    pid_t eldest_ = 0;
    pid_t pids_[3] = {};
};

class tree_kill : public kiv_test::scenario {
public:
    const char* name() const override { return "tree_kill"; }

    std::vector<kiv_test::way_to_fail> ways() const override {
        return {kiv_test::no_memory, kiv_test::no_open, kiv_test::no_read};
    }

    void prepare() override {
        family_.start();
        list_only(family_.begin(), family_.end());
        listed_ = treed_ = false;
        parent_ = found_ = 0;
    }

    void attempt() override {
        {
            std::list<_procs_snapshot*> all;
            const at_end deleted([&all] { DeleteProcsSnapshot(&all); });
            listed_ = CreateProcsSnapshot(&all, -1);
        }
        parent_ = GetParentPid(family_.eldest());
        found_ = GetChildOfProcess(::getpid(), "other \"a name\" torture_test");
        _procs_tree* tree = nullptr;
        const at_end destroyed([&tree] { DestroyProcTree(tree); });
        treed_ = CreateProcTreeSnapshot(family_.eldest(), &tree);
        SetProcTreePriority(tree, 1);
        TerminateProcTree(tree);
    }

    void finish() override {
        kiv_test::redirect_open(nullptr, nullptr);
        family_.bury();
    }

    std::string fault_in(const kiv_test::mishap& happened) override {
        if (!happened.threw && happened.way.call == kiv_test::fallible::memory && !treed_) {
            return "it came to an end without a reason"; // sorting can do without memory
        }
        // A table that cannot be read gives no tree; one that can gives all of it.
        const bool as_told = treed_ ? family_.all_have_ended() : family_.none_has_ended();
        return as_told ? "" : "a part of the tree was killed";
    }

    std::string flaw() override {
        return listed_ && treed_ && parent_ == ::getpid() && found_ == family_.eldest() &&
                       family_.all_have_ended()
                   ? ""
                   : "the tree was not found and killed";
    }

private:
    // A process table of few rows, as every row is several points.
    void list_only(const pid_t* begin, const pid_t* end) {
        for (const auto& entry : std::filesystem::directory_iterator(table_.path())) {
            std::filesystem::remove(entry.path());
        }
        std::for_each(begin, end, [this](pid_t pid) {
            const std::string number = std::to_string(pid);
            std::filesystem::create_symlink("/proc/" + number, table_.file(number));
        });
        kiv_test::redirect_open("/proc", table_.path().c_str());
    }

    kiv_test::temp_directory table_;
    generations family_;
    bool listed_ = false;
    bool treed_ = false;
    int parent_ = 0;
    int found_ = 0;
};

TEST(Torture, SpawnedChildrenSurviveEveryFailure) {
    spawn_with_pipes tortured;
    kiv_test::torture(tortured);
}

TEST(Torture, TreeIsKilledWholeOrNotAtAll) {
    tree_kill tortured;
    kiv_test::torture(tortured);
}

} // namespace
