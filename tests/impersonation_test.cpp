#include "KivFramework/KivProcesses.h"

#include "tests/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

using namespace KivFramework::KivProcesses;
using kiv_test::report_of_child;
using testing::ElementsAre;

namespace {

// The calls that switch an identity, in the order of their arrival.
struct recorder {
    bool carry_out = true;
    std::string refused; // the name of the call that fails; the others succeed
    std::vector<std::string> calls;
};
recorder record;

template <typename id_type>
int note(const char* name, id_type id) {
    record.calls.push_back(std::string(name) + " " + std::to_string(id));
    if (record.refused == name) {
        errno = EPERM;
        return -1;
    }
    if (!record.carry_out) {
        return 0;
    }
    return reinterpret_cast<int (*)(id_type)>(::dlsym(RTLD_NEXT, name))(id);
}

} // namespace

// Stand before the C library's, for the library too.
extern "C" int setgid(gid_t id) noexcept {
    return note("setgid", id);
}
extern "C" int setuid(uid_t id) noexcept {
    return note("setuid", id);
}
extern "C" int setegid(gid_t id) noexcept {
    return note("setegid", id);
}
extern "C" int seteuid(uid_t id) noexcept {
    return note("seteuid", id);
}

namespace {

constexpr const char* account_name = "nobody";

const passwd& account() {
    // The test has one thread wherever this is called.
    const passwd* found = ::getpwnam(account_name); // NOLINT(concurrency-mt-unsafe): see above
    if (found == nullptr) {
        ADD_FAILURE() << "this system has no account " << account_name;
        std::abort();
    }
    return *found;
}

std::string call(const char* name, long id) {
    return std::string(name) + " " + std::to_string(id);
}

// Makes all switching calls succeed without effect, except `refused`, for a scope.
class pretence {
public:
    explicit pretence(const std::string& refused = "") {
        record.carry_out = false;
        record.refused = refused;
    }
    ~pretence() { record = recorder(); }
    pretence(const pretence&) = delete;
    pretence& operator=(const pretence&) = delete;
};

struct id_set {
    id_t real = 0;
    id_t effective = 0;
    id_t saved = 0;
};

std::string text_of(const id_set& ids) {
    return std::to_string(ids.real) + " " + std::to_string(ids.effective) + " " +
           std::to_string(ids.saved);
}

std::string identity() {
    id_set user;
    id_set group;
    ::getresuid(&user.real, &user.effective, &user.saved);
    ::getresgid(&group.real, &group.effective, &group.saved);
    return "users " + text_of(user) + ", groups " + text_of(group);
}

// The account's identity where `switched` names one of real, effective and saved, root's elsewhere.
std::string expected_identity(const std::array<bool, 3>& switched) {
    std::string text = "users";
    for (const bool here : switched) {
        text += " " + std::to_string(here ? account().pw_uid : 0);
    }
    text += ", groups";
    for (const bool here : switched) {
        text += " " + std::to_string(here ? account().pw_gid : 0);
    }
    return text;
}

class ImpersonateUserAsRoot : public testing::Test {
protected:
    void SetUp() override {
        if (::getuid() != 0) {
            GTEST_SKIP() << "only root may switch to another account";
        }
    }
};
using RevertUserImpersonationAsRoot = ImpersonateUserAsRoot;

TEST(ImpersonateUser, IsFalseForAnUnknownAccountAndChangesNothing) {
    const pretence scope;
    EXPECT_FALSE(ImpersonateUser("nosuchuser", "", false));
    EXPECT_FALSE(ImpersonateUser("nosuchuser", "", true));
    EXPECT_FALSE(ImpersonateUser("", "", false));
    EXPECT_TRUE(record.calls.empty());
}

TEST(ImpersonateUser, IsFalseForNoNameAtAll) {
    const pretence scope;
    EXPECT_FALSE(ImpersonateUser(nullptr, nullptr, true));
    EXPECT_TRUE(record.calls.empty());
}

TEST(ImpersonateUser, SwitchesTheGroupBeforeTheUser) {
    const pretence scope;
    EXPECT_TRUE(ImpersonateUser(account_name, "", true));
    EXPECT_THAT(record.calls,
                ElementsAre(call("setgid", account().pw_gid), call("setuid", account().pw_uid)));
}

TEST(ImpersonateUser, SwitchesTheEffectiveIdentityAloneForATime) {
    const pretence scope;
    EXPECT_TRUE(ImpersonateUser(account_name, "", false));
    EXPECT_THAT(record.calls,
                ElementsAre(call("setegid", account().pw_gid), call("seteuid", account().pw_uid)));
}

TEST(ImpersonateUser, NeverConsultsTheSecret) {
    const pretence scope;
    EXPECT_TRUE(ImpersonateUser(account_name, nullptr, true));
    EXPECT_TRUE(ImpersonateUser(account_name, "certainly wrong", true));
}

TEST(ImpersonateUser, LeavesTheUserAloneWhenTheGroupIsRefused) {
    {
        const pretence scope("setgid");
        EXPECT_FALSE(ImpersonateUser(account_name, "", true));
        EXPECT_THAT(record.calls, ElementsAre(call("setgid", account().pw_gid)));
    }
    const pretence scope("setegid");
    EXPECT_FALSE(ImpersonateUser(account_name, "", false));
    EXPECT_THAT(record.calls, ElementsAre(call("setegid", account().pw_gid)));
}

TEST(ImpersonateUser, PutsTheRealGroupBackWhenTheUserIsRefused) {
    const pretence scope("setuid");
    EXPECT_FALSE(ImpersonateUser(account_name, "", true));
    EXPECT_THAT(record.calls,
                ElementsAre(call("setgid", account().pw_gid), call("setuid", account().pw_uid),
                            call("setgid", ::getgid())));
}

TEST(ImpersonateUser, PutsTheEffectiveGroupBackToTheRealOneWhenTheUserIsRefused) {
    const pretence scope("seteuid");
    EXPECT_FALSE(ImpersonateUser(account_name, "", false));
    EXPECT_THAT(record.calls,
                ElementsAre(call("setegid", account().pw_gid), call("seteuid", account().pw_uid),
                            call("setegid", ::getgid())));
}

TEST_F(ImpersonateUserAsRoot, SwitchesForGood) {
    EXPECT_EQ(report_of_child([] {
                  const bool switched = ImpersonateUser(account_name, "", true);
                  const bool back = ::setuid(0) == 0 || ::seteuid(0) == 0 || ::setgid(0) == 0;
                  return std::string(switched ? "true, " : "false, ") +
                         (back ? "and back, " : "no way back, ") + identity();
              }),
              "true, no way back, " + expected_identity({true, true, true}));
}

TEST_F(ImpersonateUserAsRoot, SwitchesForATimeAndBack) {
    EXPECT_EQ(report_of_child([] {
                  std::string report = ImpersonateUser(account_name, "", false) ? "" : "refused ";
                  report += identity();
                  report += RevertUserImpersonation() ? "; back " : "; refused ";
                  return report + identity();
              }),
              expected_identity({false, true, false}) + "; back " +
                  expected_identity({false, false, false}));
}

TEST_F(ImpersonateUserAsRoot, RestoresTheGroupWhenTheUserIsRefused) {
    for (const bool permanent : {true, false}) {
        EXPECT_EQ(report_of_child([permanent] {
                      record.refused = permanent ? "setuid" : "seteuid";
                      const bool switched = ImpersonateUser(account_name, "", permanent);
                      return std::string(switched ? "true " : "false ") +
                             std::to_string(::getgid()) + " " + std::to_string(::getegid());
                  }),
                  "false 0 0");
    }
}

TEST_F(ImpersonateUserAsRoot, KeepsTheSupplementaryGroups) {
    EXPECT_EQ(report_of_child([] {
                  const std::array<gid_t, 2> given{54321, 54322};
                  ::setgroups(given.size(), given.data());
                  const bool switched = ImpersonateUser(account_name, "", true);
                  std::array<gid_t, 8> groups{};
                  const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
                  std::string report = switched ? "switched" : "refused";
                  for (int i = 0; i < count; ++i) {
                      report += " " + std::to_string(groups[static_cast<std::size_t>(i)]);
                  }
                  return report;
              }),
              "switched 54321 54322");
}

TEST_F(ImpersonateUserAsRoot, SwitchesEveryThreadOfTheProcess) {
    EXPECT_EQ(report_of_child([] {
                  std::string seen;
                  ImpersonateUser(account_name, "", false);
                  std::thread([&] { seen = identity(); }).join();
                  return seen;
              }),
              expected_identity({false, true, false}));
}

TEST(ImpersonateUser, IsRefusedToAnOrdinaryUserAndLeavesTheIdentity) {
    for (const bool permanent : {true, false}) {
        EXPECT_EQ(report_of_child([permanent] {
                      if (::getuid() == 0) {
                          EXPECT_EQ(::setgid(account().pw_gid), 0);
                          EXPECT_EQ(::setuid(account().pw_uid), 0);
                      }
                      const std::string before = identity();
                      const bool switched = ImpersonateUser("root", "", permanent);
                      return std::string(switched ? "true" : "false") +
                             (identity() == before ? ", unchanged" : ", changed");
                  }),
                  "false, unchanged");
    }
}

TEST(RevertUserImpersonation, SwitchesTheUserBackBeforeTheGroup) {
    const pretence scope;
    EXPECT_TRUE(RevertUserImpersonation());
    EXPECT_THAT(record.calls,
                ElementsAre(call("seteuid", ::getuid()), call("setegid", ::getgid())));
}

TEST(RevertUserImpersonation, LeavesTheGroupAloneWhenTheUserIsRefused) {
    const pretence scope("seteuid");
    EXPECT_FALSE(RevertUserImpersonation());
    EXPECT_THAT(record.calls, ElementsAre(call("seteuid", ::getuid())));
}

TEST(RevertUserImpersonation, IsFalseWhenTheGroupIsRefused) {
    const pretence scope("setegid");
    EXPECT_FALSE(RevertUserImpersonation());
    EXPECT_EQ(record.calls.size(), 2U);
}

TEST(RevertUserImpersonation, IsTrueWithNothingToRevert) {
    EXPECT_EQ(report_of_child([] {
                  const std::string before = identity();
                  const bool reverted = RevertUserImpersonation();
                  return std::string(reverted && identity() == before ? "unchanged" : "changed");
              }),
              "unchanged");
}

} // namespace
