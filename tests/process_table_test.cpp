#include "KivFramework/internal/process_index.h"
#include "KivFramework/platform/linux/stat_line.h"
#include "KivFramework/platform/process_table.h"

#include "tests/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

using namespace KivFramework;
using kiv_test::idle_child;
using kiv_test::report_of_child;

namespace {

const platform::process_row* row_of(const std::vector<platform::process_row>& rows, int pid) {
    const auto found =
        std::find_if(rows.begin(), rows.end(), [pid](const auto& row) { return row.pid == pid; });
    return found == rows.end() ? nullptr : &*found;
}

TEST(ParseStatLine, TakesPidNameAndParent) {
    const auto fields = platform::parse_stat_line("12 (sh) S 7 12 12 34816 0 -1 4194304\n");
    ASSERT_TRUE(fields);
    EXPECT_EQ(fields->pid, 12);
    EXPECT_EQ(fields->name, "sh");
    EXPECT_EQ(fields->ppid, 7);
}

TEST(ParseStatLine, TakesTheNameFromTheFirstToTheLastParenthesis) {
    const struct {
        std::string_view line;
        std::string_view name;
    } cases[] = {
        {"1 () S 0 0", ""},
        {"1 ()) S 0 0", ")"},
        {"1 (() S 0 0", "("},
        {"1 (a b) S 0 0", "a b"},
        {"1 (a) S 5 0) S 0 0", "a) S 5 0"},
        {"1 ((sd-pam)) S 0 0", "(sd-pam)"},
        {"1 (a\nb) S 0 0", "a\nb"},
        {"1 (kworker/0:1-events_long) I 0 0", "kworker/0:1-events_long"},
    };
    for (const auto& [line, name] : cases) {
        SCOPED_TRACE(line);
        const auto fields = platform::parse_stat_line(line);
        ASSERT_TRUE(fields);
        EXPECT_EQ(fields->name, name);
        EXPECT_EQ(fields->ppid, 0);
    }
}

TEST(ParseStatLine, AcceptsATextThatEndsAfterTheParent) {
    const auto fields = platform::parse_stat_line("2147483647 (x) Z 2147483646");
    ASSERT_TRUE(fields);
    EXPECT_EQ(fields->pid, 2147483647);
    EXPECT_EQ(fields->ppid, 2147483646);
}

TEST(ParseStatLine, RefusesEveryOtherForm) {
    const std::string_view lines[] = {
        "",
        "1",
        "1 ",
        "1 (",
        "1 (a",
        "1 (a)",
        "1 (a) ",
        "1 (a) S",
        "1 (a) S ",
        "1 (a) S x",
        "x (a) S 0",
        "1(a) S 0",
        "1 a) S 0",
        "1 (a)S 0",
        "1 (a) SS 0",
        "(a) S 0",
        " 1 (a) S 0",
        "1 )a( S 0",
        "2147483648 (a) S 0",
        "1 (a) S 2147483648",
    };
    for (const std::string_view line : lines) {
        EXPECT_FALSE(platform::parse_stat_line(line)) << line;
    }
}

TEST(ReadProcessTable, ListsTheCallerWithItsParent) {
    const auto rows = platform::read_process_table();
    ASSERT_TRUE(rows);
    const auto* self = row_of(*rows, ::getpid());
    ASSERT_NE(self, nullptr);
    EXPECT_EQ(self->ppid, ::getppid());
    EXPECT_EQ(self->name, "process_table_t"); // the kernel keeps 15 characters
}

TEST(ReadProcessTable, ListsMoreProcessesThanOneReadOfTheDirectoryReturns) {
    constexpr std::size_t count = 400;
    std::vector<std::unique_ptr<idle_child>> children;
    children.reserve(count);
    while (children.size() < count) {
        children.push_back(std::make_unique<idle_child>());
    }
    const auto rows = platform::read_process_table();
    ASSERT_TRUE(rows);
    for (const auto& child : children) {
        EXPECT_NE(row_of(*rows, child->pid()), nullptr);
    }
    EXPECT_TRUE(std::is_sorted(rows->begin(), rows->end(),
                               [](const auto& a, const auto& b) { return a.pid < b.pid; }));
}

TEST(ReadProcessTable, CutsTheNamesOfKernelWorkersLikeAllOthers) {
    const auto rows = platform::read_process_table();
    ASSERT_TRUE(rows);
    for (const auto& row : *rows) {
        EXPECT_LE(row.name.size(), 15U) << row.name;
    }
}

// How a read of the table ends when the process may open `count` more descriptors.
std::string table_with_descriptors(int count) {
    return report_of_child([count] {
        kiv_test::leave_descriptors(count);
        return std::string(platform::read_process_table() ? "read" : "not read");
    });
}

TEST(ReadProcessTable, FailsWhenTheDirectoryCannotBeOpened) {
    EXPECT_EQ(table_with_descriptors(0), "not read");
}

TEST(ReadProcessTable, FailsWhenNoProcessCanBeLookedAt) {
    EXPECT_EQ(table_with_descriptors(1), "not read");
}

TEST(ReadProcessTable, NeedsTwoDescriptors) {
    EXPECT_EQ(table_with_descriptors(2), "read");
}

// Gives the calling process, a child that is about to end, a /proc of another file system.
bool replace_proc(const char* type, const char* options) {
    return ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount(type, "/proc", type, 0, options) == 0;
}

TEST(ReadProcessTable, FailsWhereProcIsAnEmptyDirectory) {
    const std::string report = report_of_child([] {
        if (::unshare(CLONE_NEWNS) != 0 || !replace_proc("tmpfs", "")) {
            return std::string("refused");
        }
        return std::string(platform::read_process_table() ? "read" : "not read");
    });
    if (report == "refused") {
        GTEST_SKIP() << "this user may not mount";
    }
    EXPECT_EQ(report, "not read");
}

TEST(ReadProcessTable, PassesOverProcessesThatAreHiddenFromTheCaller) {
    const std::string report = report_of_child([] {
        // A process namespace too, whose /proc shares no settings with that of the system.
        if (::unshare(CLONE_NEWNS | CLONE_NEWPID) != 0) {
            return std::string("refused");
        }
        return report_of_child([] {
            if (!replace_proc("proc", "hidepid=1")) {
                return std::string("refused");
            }
            const idle_child hidden;
            // Members of group 0 see everything, too.
            const bool dropped = ::setgroups(0, nullptr) == 0 && ::setegid(65534) == 0 &&
                                 ::setresuid(65534, 65534, 0) == 0;
            const auto rows = platform::read_process_table();
            const bool regained = ::setresuid(0, 0, 0) == 0;
            if (!rows || !dropped || !regained) {
                return std::string("not read");
            }
            return "read, " + std::to_string(rows->size()) + " visible";
        });
    });
    if (report == "refused") {
        GTEST_SKIP() << "this user may not mount";
    }
    EXPECT_EQ(report, "read, 1 visible");
}

TEST(ReadParentPid, AgreesWithTheTable) {
    const idle_child child;
    const auto rows = platform::read_process_table();
    ASSERT_TRUE(rows);
    for (const int pid : {static_cast<int>(::getpid()), static_cast<int>(child.pid()), 1}) {
        const auto* row = row_of(*rows, pid);
        ASSERT_NE(row, nullptr) << pid;
        EXPECT_EQ(platform::read_parent_pid(pid), row->ppid) << pid;
    }
}

TEST(ReadParentPid, IsNotMisledByANameThatLooksLikeAField) {
    const idle_child child("\nTgid:\t1\nPPid:\t");
    EXPECT_EQ(platform::read_parent_pid(child.pid()), ::getpid());
}

TEST(ProcessIndex, FindsTheLastEntryWithAPid) {
    const internal::process_index index({{5, 1}, {6, 1}, {5, 2}});
    EXPECT_EQ(index.last_with_pid(5), 2U);
    EXPECT_EQ(index.last_with_pid(6), 1U);
    EXPECT_EQ(index.last_with_pid(7), std::nullopt);
}

TEST(ProcessIndex, FindsChildrenInListOrder) {
    const internal::process_index index({{9, 1}, {3, 2}, {5, 1}, {1, 1}});
    EXPECT_THAT(index.children_of(1), testing::ElementsAre(0, 2, 3));
    EXPECT_THAT(index.children_of(2), testing::ElementsAre(1));
    EXPECT_THAT(index.children_of(3), testing::IsEmpty());
}

TEST(ProcessIndex, TakesAnEmptyList) {
    const internal::process_index index({});
    EXPECT_EQ(index.last_with_pid(1), std::nullopt);
    EXPECT_THAT(index.children_of(1), testing::IsEmpty());
}

} // namespace
