#include "KivFramework/KivProcesses.h"

#include "tests/oracle/process_tree_model.h"
#include "tests/support/child_process.h"
#include "tests/support/pipe_ends.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace KivFramework;
using namespace KivFramework::KivProcesses;
using kiv_test::idle_child;
using kiv_test::report_of_child;

namespace {

std::vector<int> killed;
std::vector<int> reprioritised;

} // namespace

// Every kill and every change of a priority in this program is noted and carried out.
extern "C" int kill(pid_t pid, int sig) noexcept {
    if (sig == SIGKILL) {
        killed.push_back(pid);
    }
    return static_cast<int>(::syscall(SYS_kill, pid, sig));
}
extern "C" int setpriority(__priority_which_t which, id_t who, int prio) noexcept {
    reprioritised.push_back(static_cast<int>(who));
    return static_cast<int>(::syscall(SYS_setpriority, which, who, prio));
}

namespace {

// A snapshot list that frees its records.
struct snapshot {
    snapshot() = default;
    ~snapshot() { DeleteProcsSnapshot(&list); }
    snapshot(const snapshot&) = delete;
    snapshot& operator=(const snapshot&) = delete;

    std::vector<int> pids() const {
        std::vector<int> pids;
        for (const _procs_snapshot* record : list) {
            pids.push_back(record->pid);
        }
        return pids;
    }

    const _procs_snapshot* find(int pid) const {
        for (const _procs_snapshot* record : list) {
            if (record->pid == pid) {
                return record;
            }
        }
        return nullptr;
    }

    std::list<_procs_snapshot*> list;
};

struct tree_deleter {
    void operator()(_procs_tree* tree) const { DestroyProcTree(tree); }
};
using tree_owner = std::unique_ptr<_procs_tree, tree_deleter>;

tree_owner tree_of(int pid) {
    _procs_tree* root = nullptr;
    const bool made = CreateProcTreeSnapshot(pid, &root);
    EXPECT_EQ(made, root != nullptr);
    return tree_owner(root);
}

std::vector<int> child_pids(const _procs_tree& node) {
    std::vector<int> pids;
    if (node.children != nullptr) {
        for (_procs_tree** child = node.children; *child != nullptr; ++child) {
            pids.push_back((*child)->pid);
        }
    }
    return pids;
}

// Lets the process adopt its orphaned grandchildren, and reaps whatever is left of them at the end.
class adopted_orphans {
public:
    adopted_orphans() { ::prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~adopted_orphans() {
        reap();
        ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    }
    adopted_orphans(const adopted_orphans&) = delete;
    adopted_orphans& operator=(const adopted_orphans&) = delete;

    /// Waits until no descendant is left.
    static void reap() {
        while (::waitpid(-1, nullptr, 0) != -1 || errno == EINTR) {
        }
    }
};

// Real processes: `width` children of the caller, the first of which starts a chain that goes on
// until it is `length` processes long. All of them wait to be killed.
class process_family {
public:
    explicit process_family(int length, int width = 1) {
        add_chain(length);
        for (int i = 1; i < width; ++i) {
            add_chain(1);
        }
        std::sort(pids_.begin(), pids_.end());
    }
    ~process_family() {
        for (const int pid : pids_) {
            ::syscall(SYS_kill, pid, SIGKILL);
        }
    }
    process_family(const process_family&) = delete;
    process_family& operator=(const process_family&) = delete;

    /// In ascending order.
    const std::vector<int>& pids() const { return pids_; }

private:
    void add_chain(int length) {
        kiv_test::pipe_ends ends = kiv_test::make_pipe();
        start_chain(ends.write.get(), length);
        ends.write.reset();
        for (int i = 0; i < length; ++i) {
            int pid = 0;
            if (kiv_test::read_fully(ends.read.get(), &pid, sizeof(pid)) != sizeof(pid)) {
                ADD_FAILURE() << "a process of the family did not start";
                return;
            }
            pids_.push_back(pid);
        }
    }

    // Never returns in the children. Each reports before it starts the next, so that no two of them
    // write at the same time.
    static void start_chain(int report, int length) {
        if (::fork() != 0) {
            return;
        }
        const int pid = ::getpid();
        if (!kiv_test::write_fully(report, &pid, sizeof(pid))) {
            ::_exit(1);
        }
        if (length > 1) {
            start_chain(report, length - 1);
        }
        for (;;) {
            ::pause();
        }
    }

    std::vector<int> pids_;
};

TEST(ProcsSnapshotRecord, KeepsItsFieldsInOrder) {
    static_assert(std::is_standard_layout<_procs_snapshot>::value, "C hosts read its fields");
    EXPECT_EQ(offsetof(_procs_snapshot, name), 0U);
    EXPECT_EQ(offsetof(_procs_snapshot, pid), sizeof(std::string));
    EXPECT_EQ(offsetof(_procs_snapshot, ppid), sizeof(std::string) + 4);
    EXPECT_EQ(sizeof(_procs_snapshot), sizeof(std::string) + 8);
}

TEST(ProcsTreeRecord, KeepsItsFieldsInOrder) {
    static_assert(std::is_standard_layout<_procs_tree>::value, "C hosts read its fields");
    EXPECT_EQ(offsetof(_procs_tree, name), 0U);
    EXPECT_EQ(offsetof(_procs_tree, pid), sizeof(std::string));
    EXPECT_EQ(offsetof(_procs_tree, ppid), sizeof(std::string) + 4);
    EXPECT_EQ(offsetof(_procs_tree, parent), sizeof(std::string) + 8);
    EXPECT_EQ(offsetof(_procs_tree, children), sizeof(std::string) + 8 + sizeof(void*));
    EXPECT_EQ(sizeof(_procs_tree), sizeof(std::string) + 8 + 2 * sizeof(void*));
}

TEST(CreateProcsSnapshot, ListsTheCallerWithItsNameAndParent) {
    snapshot all;
    ASSERT_TRUE(CreateProcsSnapshot(&all.list, -1));
    const _procs_snapshot* self = all.find(::getpid());
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(self->name, "process_tree_te");
    EXPECT_EQ(self->ppid, ::getppid());
}

TEST(CreateProcsSnapshot, NeverListsPidZero) {
    snapshot all;
    ASSERT_TRUE(CreateProcsSnapshot(&all.list, -1));
    EXPECT_THAT(all.pids(), testing::Each(testing::Gt(0)));
}

TEST(CreateProcsSnapshot, ListsInAscendingOrderOfPids) {
    const idle_child first;
    const idle_child second;
    snapshot all;
    ASSERT_TRUE(CreateProcsSnapshot(&all.list, -1));
    const std::vector<int> pids = all.pids();
    EXPECT_TRUE(std::is_sorted(pids.begin(), pids.end()));
}

TEST(CreateProcsSnapshot, TakesOnlyTheChildrenOfAGivenParent) {
    const idle_child first;
    const idle_child second;
    snapshot children;
    ASSERT_TRUE(CreateProcsSnapshot(&children.list, ::getpid()));
    EXPECT_THAT(children.pids(), testing::UnorderedElementsAre(first.pid(), second.pid()));
}

TEST(CreateProcsSnapshot, IsTrueWithAnEmptyListForAParentWithoutChildren) {
    snapshot children;
    EXPECT_TRUE(CreateProcsSnapshot(&children.list, ::getpid()));
    EXPECT_TRUE(children.list.empty());
}

TEST(CreateProcsSnapshot, TakesParentZeroAsAParentLikeAnyOther) {
    snapshot roots;
    ASSERT_TRUE(CreateProcsSnapshot(&roots.list, 0));
    ASSERT_NE(roots.find(1), nullptr);
    for (const _procs_snapshot* record : roots.list) {
        EXPECT_EQ(record->ppid, 0);
    }
}

TEST(CreateProcsSnapshot, TakesNoThreadForAProcess) {
    std::promise<int> thread_id;
    std::promise<void> end;
    std::thread thread([&] {
        thread_id.set_value(::gettid());
        end.get_future().wait();
    });
    const int id = thread_id.get_future().get();
    snapshot all;
    EXPECT_TRUE(CreateProcsSnapshot(&all.list, -1));
    EXPECT_EQ(all.find(id), nullptr);
    EXPECT_EQ(GetParentPid(id), 0);
    end.set_value();
    thread.join();
}

TEST(CreateProcsSnapshot, EmptiesTheListWithoutFreeingItsRecords) {
    _procs_snapshot record;
    record.name = "the host's";
    snapshot all;
    all.list.push_back(&record);
    ASSERT_TRUE(CreateProcsSnapshot(&all.list, ::getpid()));
    EXPECT_TRUE(all.list.empty());
    EXPECT_EQ(record.name, "the host's");
}

TEST(CreateProcsSnapshot, KeepsAnyByteOfAName) {
    for (const std::string_view name :
         {"my tool", "a) S 1 (b", ")", "(", "two\nlines", "\xC3\xA4", "a\\b"}) {
        SCOPED_TRACE(name);
        const idle_child child(name);
        snapshot children;
        ASSERT_TRUE(CreateProcsSnapshot(&children.list, ::getpid()));
        ASSERT_EQ(children.pids(), std::vector<int>{child.pid()});
        EXPECT_EQ(children.list.front()->name, name);
    }
}

TEST(CreateProcsSnapshot, HasTheFifteenCharactersThatTheSystemKeepsOfAName) {
    const idle_child exact("fifteen letters");
    const idle_child longer("sixteen letters!");
    snapshot children;
    ASSERT_TRUE(CreateProcsSnapshot(&children.list, ::getpid()));
    ASSERT_EQ(children.list.size(), 2U);
    EXPECT_EQ(children.list.front()->name, "fifteen letters");
    EXPECT_EQ(children.list.back()->name, "sixteen letters");
}

TEST(CreateProcsSnapshot, PassesOverProcessesThatEndMeanwhile) {
    const pid_t churner = ::fork();
    if (churner == 0) {
        for (;;) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::_exit(0);
            }
            kiv_test::wait_for_child(child);
        }
    }
    for (int i = 0; i < 100; ++i) {
        snapshot all;
        EXPECT_TRUE(CreateProcsSnapshot(&all.list, -1));
        EXPECT_NE(all.find(::getpid()), nullptr);
    }
    ::syscall(SYS_kill, churner, SIGKILL);
    kiv_test::wait_for_child(churner);
}

TEST(CreateProcsSnapshot, IsFalseWithAnEmptyListWhenTheTableCannotBeRead) {
    for (const int spare : {0, 1}) {
        EXPECT_EQ(report_of_child([spare] {
                      _procs_snapshot record;
                      std::list<_procs_snapshot*> list{&record};
                      kiv_test::leave_descriptors(spare);
                      const bool result = CreateProcsSnapshot(&list, -1);
                      return std::string(result ? "true" : "false") +
                             (list.empty() ? ", empty" : ", not empty");
                  }),
                  "false, empty");
    }
}

TEST(DeleteProcsSnapshot, FreesTheRecordsAndEmptiesTheList) {
    std::list<_procs_snapshot*> list{new _procs_snapshot, new _procs_snapshot};
    DeleteProcsSnapshot(&list); // the address sanitizer sees what is not freed
    EXPECT_TRUE(list.empty());
    DeleteProcsSnapshot(&list);
    EXPECT_TRUE(list.empty());
}

TEST(DeleteProcsSnapshot, IgnoresNull) {
    DeleteProcsSnapshot(nullptr);
}

TEST(GetParentPid, IsTheParentOfTheProcess) {
    const idle_child child;
    EXPECT_EQ(GetParentPid(child.pid()), ::getpid());
    EXPECT_EQ(GetParentPid(::getpid()), ::getppid());
}

TEST(GetParentPid, IsZeroForTheFirstProcess) {
    EXPECT_EQ(GetParentPid(1), 0);
}

TEST(GetParentPid, IsZeroForAProcessThatIsGone) {
    int gone = 0;
    {
        const idle_child child;
        gone = child.pid();
    }
    EXPECT_EQ(GetParentPid(gone), 0);
}

TEST(GetParentPid, IsZeroForNumbersThatAreNoPids) {
    for (const int pid : {0, -1, -::getpid(), 2147483647, static_cast<int>(-2147483648LL)}) {
        EXPECT_EQ(GetParentPid(pid), 0) << pid;
    }
}

TEST(GetParentPid, KnowsAProcessThatHasEndedButIsNotReaped) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    siginfo_t info{};
    ASSERT_EQ(kiv_test::uninterrupted([&] {
                  return ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT);
              }),
              0);
    EXPECT_EQ(GetParentPid(child), ::getpid());
    kiv_test::wait_for_child(child);
}

TEST(GetParentPid, IsZeroWhenTheTableCannotBeRead) {
    EXPECT_EQ(report_of_child([] {
                  kiv_test::leave_descriptors(0);
                  return std::to_string(GetParentPid(::getpid()));
              }),
              "0");
}

TEST(GetChildOfProcess, FindsOneOfSeveralNames) {
    const idle_child agent("agent");
    const idle_child tool("my tool");
    EXPECT_EQ(GetChildOfProcess(::getpid(), "agent"), agent.pid());
    EXPECT_EQ(GetChildOfProcess(::getpid(), "other agent"), agent.pid());
    EXPECT_EQ(GetChildOfProcess(::getpid(), "other \"my tool\""), tool.pid());
    EXPECT_EQ(GetChildOfProcess(::getpid(), "my\\ tool"), tool.pid());
}

TEST(GetChildOfProcess, IgnoresCaseOnBothSides) {
    const idle_child child("AgenT");
    EXPECT_EQ(GetChildOfProcess(::getpid(), "aGENt \"my tool\""), child.pid());
}

TEST(GetChildOfProcess, IsZeroWhenTheParentHasNoSuchChild) {
    const idle_child child("agent");
    for (const char* names : {"", " ", "other", "agen", "agents", "my tool", "\"agent x\""}) {
        EXPECT_EQ(GetChildOfProcess(::getpid(), names), 0) << names;
    }
    EXPECT_EQ(GetChildOfProcess(child.pid(), "agent"), 0);
    EXPECT_EQ(GetChildOfProcess(-1, "agent"), 0);
}

TEST(GetChildOfProcess, TakesTheFirstChildByPidWhateverTheOrderOfNames) {
    const idle_child child_a("a");
    const idle_child child_b("b");
    EXPECT_EQ(GetChildOfProcess(::getpid(), "b a"), std::min(child_a.pid(), child_b.pid()));
}

TEST(GetChildOfProcess, KeepsTheNamesBeforeAQuoteThatIsNeverClosed) {
    const idle_child agent("agent");
    const idle_child tool("tool");
    EXPECT_EQ(GetChildOfProcess(::getpid(), "agent \"tool"), agent.pid());
    EXPECT_EQ(GetChildOfProcess(::getpid(), "\"tool"), 0);
    EXPECT_EQ(GetChildOfProcess(::getpid(), "other \"x tool"), 0);
}

TEST(GetChildOfProcess, FindsAnEmptyNameByTwoSpaces) {
    const idle_child child("x");
    const pid_t nameless = ::fork();
    if (nameless == 0) {
        ::prctl(PR_SET_NAME, "");
        for (;;) {
            ::pause();
        }
    }
    EXPECT_TRUE(kiv_test::wait_until(
        [nameless] { return GetChildOfProcess(::getpid(), "a  b") == nameless; }));
    ::syscall(SYS_kill, nameless, SIGKILL);
    kiv_test::wait_for_child(nameless);
}

TEST(GetChildOfProcess, IsZeroForNoNamesAtAll) {
    const idle_child child("agent");
    EXPECT_EQ(GetChildOfProcess(::getpid(), nullptr), 0);
}

TEST(GetChildOfProcess, IsZeroWhenTheTableCannotBeRead) {
    EXPECT_EQ(report_of_child([] {
                  const idle_child child("agent");
                  kiv_test::leave_descriptors(0);
                  return std::to_string(GetChildOfProcess(::getpid(), "agent"));
              }),
              "0");
}

TEST(CreateProcTreeSnapshot, IsFalseWithNullForPidZero) {
    _procs_tree node;
    _procs_tree* root = &node;
    EXPECT_FALSE(CreateProcTreeSnapshot(0, &root));
    EXPECT_EQ(root, nullptr);
}

TEST(CreateProcTreeSnapshot, IsFalseWithNullForAnUnknownPid) {
    for (const int pid : {-1, 2147483647}) {
        _procs_tree node;
        _procs_tree* root = &node;
        EXPECT_FALSE(CreateProcTreeSnapshot(pid, &root));
        EXPECT_EQ(root, nullptr);
    }
}

TEST(CreateProcTreeSnapshot, HasNoArrayForAProcessWithoutChildren) {
    const idle_child child("leaf");
    const tree_owner tree = tree_of(child.pid());
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(tree->name, "leaf");
    EXPECT_EQ(tree->pid, child.pid());
    EXPECT_EQ(tree->ppid, ::getpid());
    EXPECT_EQ(tree->parent, nullptr);
    EXPECT_EQ(tree->children, nullptr);
}

TEST(CreateProcTreeSnapshot, PutsChildrenInOrderBelowTheirParent) {
    const adopted_orphans orphans;
    const process_family family(/*length=*/2, /*width=*/3);
    const tree_owner tree = tree_of(::getpid());
    ASSERT_NE(tree, nullptr);
    const std::vector<int> children = child_pids(*tree);
    EXPECT_EQ(children.size(), 3U);
    EXPECT_TRUE(std::is_sorted(children.begin(), children.end()));
    std::size_t grandchildren = 0;
    for (_procs_tree** child = tree->children; *child != nullptr; ++child) {
        EXPECT_EQ((*child)->parent, tree.get());
        EXPECT_EQ((*child)->ppid, ::getpid());
        grandchildren += child_pids(**child).size();
    }
    EXPECT_EQ(grandchildren, 1U);
}

TEST(CreateProcTreeSnapshot, CutsAChainAfterTwentyOneLevels) {
    const adopted_orphans orphans;
    const process_family family(/*length=*/24);
    const tree_owner tree = tree_of(::getpid());
    ASSERT_NE(tree, nullptr);
    int depth = 0;
    const _procs_tree* node = tree.get();
    while (node->children != nullptr && *node->children != nullptr) {
        EXPECT_EQ(node->children[1], nullptr);
        EXPECT_EQ(node->children[0]->parent, node);
        node = *node->children;
        ++depth;
    }
    EXPECT_EQ(depth, 20);
    // The process at the cut has a child, so it has an array, but no child in it.
    ASSERT_NE(node->children, nullptr);
    EXPECT_EQ(node->children[0], nullptr);
    EXPECT_EQ(node->children[1], nullptr);
}

TEST(CreateProcTreeSnapshot, IsFalseWithNullWhenTheTableCannotBeRead) {
    EXPECT_EQ(report_of_child([] {
                  kiv_test::leave_descriptors(0);
                  _procs_tree node;
                  _procs_tree* root = &node;
                  const bool result = CreateProcTreeSnapshot(::getpid(), &root);
                  return std::string(result ? "true" : "false") +
                         (root == nullptr ? ", null" : ", a tree");
              }),
              "false, null");
}

// A hand-made snapshot.
class hand_made_list {
public:
    explicit hand_made_list(const std::vector<kiv_oracle::listed_process>& processes) {
        for (const kiv_oracle::listed_process& process : processes) {
            auto record = std::make_unique<_procs_snapshot>();
            record->name = process.name;
            record->pid = process.pid;
            record->ppid = process.ppid;
            snapshot_.list.push_back(record.release());
        }
    }

    /// The node made for `pid` at `depth`.
    tree_owner node(int pid, int depth = 0) {
        _procs_tree* slot = nullptr;
        _makeProcTreeNode(pid, nullptr, &snapshot_.list, &slot, depth);
        return tree_owner(slot);
    }

    std::list<_procs_snapshot*>* list() { return &snapshot_.list; }

private:
    snapshot snapshot_;
};

// A tree in the form of the model's text. It knows the slots behind a null one by the list.
std::string text_of(const _procs_tree* node, const std::vector<kiv_oracle::listed_process>& list) {
    if (node == nullptr) {
        return "-";
    }
    std::string text =
        node->name + "(" + std::to_string(node->pid) + "," + std::to_string(node->ppid) + ")";
    if (node->children == nullptr) {
        return text;
    }
    text += "[";
    const auto slots = std::count_if(list.begin(), list.end(),
                                     [node](const auto& entry) { return entry.ppid == node->pid; });
    for (std::ptrdiff_t slot = 0; slot < slots; ++slot) {
        const _procs_tree* child = node->children[slot];
        EXPECT_TRUE(child == nullptr || child->parent == node);
        text += text_of(child, list);
    }
    EXPECT_EQ(node->children[slots], nullptr);
    return text + "]";
}

TEST(MakeProcTreeNode, DoesNothingWithANullSlot) {
    hand_made_list list({{"a", 1, 0}});
    _makeProcTreeNode(1, nullptr, list.list(), nullptr, 0);
    EXPECT_EQ(list.list()->size(), 1U);
}

TEST(MakeProcTreeNode, LeavesTheSlotUntouchedFromDepthTwentyOneOn) {
    hand_made_list list({{"a", 1, 0}});
    std::list<_procs_snapshot*> empty;
    _procs_tree untouched;
    for (const int depth : {21, 22, 2147483647}) {
        _procs_tree* slot = &untouched;
        _makeProcTreeNode(1, nullptr, list.list(), &slot, depth);
        EXPECT_EQ(slot, &untouched);
        _makeProcTreeNode(1, nullptr, &empty, &slot, depth);
        EXPECT_EQ(slot, &untouched);
    }
    EXPECT_NE(list.node(1, 20), nullptr);
}

TEST(MakeProcTreeNode, SetsTheSlotToNullForAnEmptyList) {
    std::list<_procs_snapshot*> empty;
    _procs_tree node;
    _procs_tree* slot = &node;
    _makeProcTreeNode(1, nullptr, &empty, &slot, 0);
    EXPECT_EQ(slot, nullptr);
}

TEST(MakeProcTreeNode, SetsTheSlotToNullForAPidThatIsNotListed) {
    hand_made_list list({{"a", 1, 0}, {"b", 2, 5}});
    _procs_tree node;
    _procs_tree* slot = &node;
    _makeProcTreeNode(5, nullptr, list.list(), &slot, 0);
    EXPECT_EQ(slot, nullptr);
}

TEST(MakeProcTreeNode, StoresTheGivenParent) {
    hand_made_list list({{"a", 1, 0}});
    _procs_tree above;
    _procs_tree* slot = nullptr;
    _makeProcTreeNode(1, &above, list.list(), &slot, 7);
    const tree_owner node(slot);
    EXPECT_EQ(node->parent, &above);
}

TEST(MakeProcTreeNode, FollowsItsRulesOnHandMadeLists) {
    const struct {
        const char* rule;
        std::vector<kiv_oracle::listed_process> list;
        int pid;
        int depth;
        const char* tree;
    } cases[] = {
        {"children in list order",
         {{"c", 3, 1}, {"a", 1, 0}, {"b", 2, 1}},
         1,
         0,
         "a(1,0)[c(3,1)b(2,1)]"},
        {"the last of several entries with a pid",
         {{"old", 1, 8}, {"new", 1, 9}},
         1,
         0,
         "new(1,9)"},
        {"a branch for each entry of a pid",
         {{"a", 1, 0}, {"b", 2, 1}, {"c", 2, 1}},
         1,
         0,
         "a(1,0)[c(2,1)c(2,1)]"},
        {"pid 0 has no children", {{"idle", 0, 0}, {"a", 1, 0}}, 0, 0, "idle(0,0)"},
        {"a listed pid 0 is a child", {{"a", 1, 9}, {"idle", 0, 1}}, 1, 0, "a(1,9)[idle(0,1)]"},
        {"a negative pid has no children", {{"n", -2, 0}, {"a", 1, -2}}, -2, 0, "n(-2,0)"},
        {"null slots at the cut", {{"a", 1, 0}, {"b", 2, 1}, {"c", 3, 1}}, 1, 20, "a(1,0)[--]"},
        {"one level above the cut",
         {{"a", 1, 0}, {"b", 2, 1}, {"c", 3, 2}},
         1,
         19,
         "a(1,0)[b(2,1)[-]]"},
        {"its own parent", {{"a", 1, 1}}, 1, 19, "a(1,1)[a(1,1)[-]]"},
        {"a cycle of two", {{"a", 1, 2}, {"b", 2, 1}}, 1, 18, "a(1,2)[b(2,1)[a(1,2)[-]]]"},
    };
    for (const auto& [rule, processes, pid, depth, tree] : cases) {
        SCOPED_TRACE(rule);
        hand_made_list list(processes);
        EXPECT_EQ(text_of(list.node(pid, depth).get(), processes), tree);
    }
}

TEST(MakeProcTreeNode, EndsACycleAfterTwentyOneLevels) {
    hand_made_list list({{"a", 1, 2}, {"b", 2, 1}});
    const tree_owner tree = list.node(1);
    int levels = 0;
    for (const _procs_tree* node = tree.get(); node != nullptr; node = node->children[0]) {
        ++levels;
    }
    EXPECT_EQ(levels, 21);
}

TEST(MakeProcTreeNode, AgreesWithTheModelOnAllShortLists) {
    constexpr int numbers = 4; // pids and parents 0 to 3
    constexpr int kinds = numbers * numbers;
    for (int size = 0; size <= 3; ++size) {
        int lists = 1;
        for (int i = 0; i < size; ++i) {
            lists *= kinds;
        }
        for (int number = 0; number < lists; ++number) {
            std::vector<kiv_oracle::listed_process> processes;
            for (int i = 0, rest = number; i < size; ++i, rest /= kinds) {
                processes.push_back({std::string(1, static_cast<char>('a' + i)),
                                     rest % kinds % numbers, rest % kinds / numbers});
            }
            hand_made_list list(processes);
            for (int pid = 0; pid < numbers; ++pid) {
                ASSERT_EQ(text_of(list.node(pid, 18).get(), processes),
                          kiv_oracle::tree_text(pid, processes, 18));
            }
        }
    }
}

TEST(MakeProcTreeNode, LeavesTheListAsItIs) {
    hand_made_list list({{"a", 1, 0}, {"b", 2, 1}});
    const std::list<_procs_snapshot*> before = *list.list();
    list.node(1);
    EXPECT_EQ(*list.list(), before);
}

TEST(TerminateProcTree, KillsChildrenBeforeTheirParents) {
    const adopted_orphans orphans;
    const process_family family(/*length=*/4, /*width=*/2);
    tree_owner tree = tree_of(::getpid());
    ASSERT_NE(tree, nullptr);
    // The tests' own process is the root, so its branches are terminated one by one.
    std::vector<int> expected;
    for (_procs_tree** branch = tree->children; *branch != nullptr; ++branch) {
        std::vector<int> chain;
        for (const _procs_tree* node = *branch; node != nullptr;
             node = node->children != nullptr ? node->children[0] : nullptr) {
            chain.insert(chain.begin(), node->pid);
        }
        expected.insert(expected.end(), chain.begin(), chain.end());
    }
    ASSERT_EQ(expected.size(), 5U);
    killed.clear();
    for (_procs_tree** branch = tree->children; *branch != nullptr; ++branch) {
        TerminateProcTree(*branch);
    }
    EXPECT_EQ(killed, expected);
}

TEST(TerminateProcTree, LeavesNoSurvivor) {
    const adopted_orphans orphans;
    process_family family(/*length=*/10);
    const tree_owner tree = tree_of(family.pids().front());
    ASSERT_NE(tree, nullptr);
    TerminateProcTree(tree.get());
    adopted_orphans::reap();
    for (const int pid : family.pids()) {
        EXPECT_EQ(GetParentPid(pid), 0) << pid;
    }
}

TEST(TerminateProcTree, ReapsTheCallersOwnChildren) {
    const pid_t child = ::fork();
    if (child == 0) {
        for (;;) {
            ::pause();
        }
    }
    const tree_owner tree = tree_of(child);
    TerminateProcTree(tree.get());
    EXPECT_EQ(kiv_test::wait_for_child(child), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(TerminateProcTree, PassesOverProcessesThatAreGone) {
    int gone = 0;
    {
        const idle_child child;
        gone = child.pid();
    }
    _procs_tree node;
    node.pid = gone;
    TerminateProcTree(&node);
}

TEST(TerminateProcTree, DoesNotFreeTheTree) {
    const idle_child child("stays");
    const tree_owner tree = tree_of(child.pid());
    TerminateProcTree(tree.get());
    EXPECT_EQ(tree->name, "stays");
}

TEST(TerminateProcTree, StopsAtTheFirstNullOfAnArrayOfChildren) {
    const idle_child shown;
    const idle_child hidden;
    const idle_child top;
    _procs_tree first;
    first.pid = shown.pid();
    _procs_tree second;
    second.pid = hidden.pid();
    _procs_tree* children[] = {&first, nullptr, &second, nullptr};
    _procs_tree root;
    root.pid = top.pid();
    root.children = children;
    killed.clear();
    TerminateProcTree(&root);
    EXPECT_THAT(killed, testing::ElementsAre(shown.pid(), top.pid()));
    EXPECT_EQ(GetParentPid(hidden.pid()), ::getpid());
}

TEST(TerminateProcTree, IgnoresNull) {
    killed.clear();
    TerminateProcTree(nullptr);
    EXPECT_TRUE(killed.empty());
}

TEST(SetProcTreePriority, SetsEveryProcessOfTheTreeDeepestFirst) {
    const adopted_orphans orphans;
    const process_family family(/*length=*/3);
    const tree_owner tree = tree_of(family.pids().front());
    ASSERT_NE(tree, nullptr);
    ASSERT_NE(tree->children, nullptr);
    const _procs_tree* middle = tree->children[0];
    ASSERT_NE(middle->children, nullptr);
    const _procs_tree* leaf = middle->children[0];
    reprioritised.clear();
    SetProcTreePriority(tree.get(), 1);
    EXPECT_THAT(reprioritised, testing::ElementsAre(leaf->pid, middle->pid, tree->pid));
    for (const int pid : family.pids()) {
        EXPECT_EQ(GetProcessPriority(pid), 1) << pid;
    }
}

TEST(SetProcTreePriority, StopsAtTheFirstNullOfAnArrayOfChildren) {
    const idle_child hidden;
    _procs_tree second;
    second.pid = hidden.pid();
    _procs_tree* children[] = {nullptr, &second, nullptr};
    const idle_child top;
    _procs_tree root;
    root.pid = top.pid();
    root.children = children;
    reprioritised.clear();
    SetProcTreePriority(&root, 1);
    EXPECT_THAT(reprioritised, testing::ElementsAre(top.pid()));
}

TEST(SetProcTreePriority, IgnoresNull) {
    SetProcTreePriority(nullptr, 1);
}

TEST(DestroyProcTree, FreesNodesAndArrays) {
    hand_made_list list({{"a", 1, 0}, {"a long name beyond any small buffer", 2, 1}, {"c", 3, 2}});
    DestroyProcTree(list.node(1).release()); // the address sanitizer sees what is not freed
}

TEST(DestroyProcTree, FreesATreeThatWasCutAtItsDepthLimit) {
    hand_made_list list({{"a", 1, 1}});
    DestroyProcTree(list.node(1).release());
}

TEST(DestroyProcTree, LeavesAnArrayOfTheHostAlone) {
    _procs_tree* children[] = {new _procs_tree, nullptr};
    auto* root = new _procs_tree;
    root->children = children;
    DestroyProcTree(root);
    EXPECT_EQ(children[1], nullptr);
}

TEST(DestroyProcTree, StopsAtTheFirstNullOfAnArrayOfChildren) {
    _procs_tree hidden;
    hidden.name = "hidden";
    _procs_tree* children[] = {nullptr, &hidden, nullptr};
    auto* root = new _procs_tree;
    root->children = children;
    DestroyProcTree(root);
    EXPECT_EQ(hidden.name, "hidden");
}

TEST(DestroyProcTree, IgnoresNull) {
    DestroyProcTree(nullptr);
}

} // namespace
