#include "util/privilege.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/child.h"
#include "support/faults.h"

namespace {

using test::Fault;

constexpr const char* kAccount = "nobody";

class DropPrivilege : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) {
      GTEST_SKIP() << "only root can become somebody else";
    }
    account_ = *::getpwnam(kAccount);
  }

  // Drops to `user` in a child, as the user `from`; true when `check` holds of the message then.
  template <typename Check>
  bool InChild(const std::string& user, uid_t from, const Check& check) {
    return test::RunInChild([&] {
             if (::setuid(from) != 0) {
               ::_exit(2);
             }
             const Orx::Status status = stdext::drop_privilege(user);
             ::_exit(check(status) ? 0 : 1);
           }) == 0;
  }

  passwd account_ = {};
};

TEST_F(DropPrivilege, BecomesGroupAndUserForGood) {
  EXPECT_TRUE(InChild(kAccount, 0, [this](const Orx::Status& status) {
    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    gid_t group = 0;
    gid_t effectiveGroup = 0;
    gid_t savedGroup = 0;
    ::getresuid(&real, &effective, &saved);
    ::getresgid(&group, &effectiveGroup, &savedGroup);
    const uid_t uid = account_.pw_uid;
    const gid_t gid = account_.pw_gid;
    return status.IsOk() && status.Message().empty() && real == uid && effective == uid &&
           saved == uid && group == gid && effectiveGroup == gid && savedGroup == gid &&
           ::setuid(0) == -1;
  }));
}

TEST_F(DropPrivilege, LeavesSupplementaryGroupsAlone) {
  const int status = test::RunInChild([] {
    const gid_t groups[] = {4711, 4712};
    if (::setgroups(2, groups) != 0 || !stdext::drop_privilege(kAccount).IsOk()) {
      ::_exit(2);
    }
    gid_t kept[3] = {};
    ::_exit(::getgroups(3, kept) == 2 && kept[0] == 4711 && kept[1] == 4712 ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
}

TEST_F(DropPrivilege, AnUnknownUserIsNamedAndNothingChanges) {
  EXPECT_TRUE(InChild("no such user", 0, [](const Orx::Status& status) {
    return !status.IsOk() && status.Message() == "Failed to resolve user id 'no such user'" &&
           ::getuid() == 0 && ::getgid() == 0;
  }));
}

TEST_F(DropPrivilege, WithoutRightsTheGroupCannotBeChanged) {
  EXPECT_TRUE(InChild("daemon", account_.pw_uid, [](const Orx::Status& status) {
    return !status.IsOk() &&
           status.Message() == "Failed to set gid errno " + std::to_string(EPERM) &&
           ::getgid() == 0;
  }));
}

TEST_F(DropPrivilege, WhenTheGroupCannotBeChangedTheUserIsNotEither) {
  const int status = test::RunInChild([] {
    const Fault fault("setgid", EINVAL);
    const Orx::Status result = stdext::drop_privilege(kAccount);
    const bool asExpected =
        !result.IsOk() && result.Message() == "Failed to set gid errno " + std::to_string(EINVAL) &&
        ::getgid() == 0 && ::getuid() == 0;
    ::_exit(asExpected ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
}

TEST_F(DropPrivilege, WhenTheUserCannotBeChangedTheGroupHasBeen) {
  const int status = test::RunInChild([this] {
    const Fault fault("setuid", EAGAIN);
    const Orx::Status result = stdext::drop_privilege(kAccount);
    const bool asExpected =
        result.Message() == "Failed to set uid errno " + std::to_string(EAGAIN) &&
        ::getgid() == account_.pw_gid && ::getuid() == 0;
    ::_exit(asExpected ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
}

TEST_F(DropPrivilege, ToTheSameUserSucceeds) {
  EXPECT_TRUE(InChild("root", 0, [](const Orx::Status& status) { return status.IsOk(); }));
}

TEST_F(DropPrivilege, ToTheSameUserStillChangesTheGroup) {
  const int status = test::RunInChild([this] {
    const bool asExpected =
        ::setgid(account_.pw_gid) == 0 && stdext::drop_privilege("root").IsOk() && ::getgid() == 0;
    ::_exit(asExpected ? 0 : 1);
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
