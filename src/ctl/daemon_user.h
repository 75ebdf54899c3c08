#pragma once

#include <string>

#include <sys/stat.h>
#include <sys/types.h>

namespace tavlo::ctl {

/// The user that the daemon is after its start, and what that user may do. The kernel is asked, by
/// access(2), which goes by the process's real user: so root's rights do not count, and what other
/// rules a file system has (lists, mounts without programs) does.
class DaemonUser {
 public:
  /// `agentUser` as configured; empty for whoever runs this. Makes the process's real user and
  /// group and its supplementary groups those of the account, where it may: to be made once, while
  /// there is one thread. The effective user stays.
  explicit DaemonUser(const std::string& agentUser);

  /// False when there is no such account.
  bool Exists() const { return exists_; }

  /// False when `May` has nothing to go by: there is no such account, or whoever runs this is
  /// neither root nor that user.
  bool CanBeAsked() const { return canBeAsked_; }

  bool IsRoot() const { return uid_ == 0; }

  uid_t Id() const { return uid_; }

  const std::string& Name() const { return name_; }

  /// Whether the user may do that; `mode` as for access(2). True when the user cannot be asked.
  bool May(const std::string& path, int mode) const;

  /// The first directory on the way to `path` that the user may not enter; empty when there is
  /// none.
  std::string ClosedDirectory(const std::string& path) const;

  /// Who may write there beside root and the user, such as "everybody" or "group 'staff'"; empty
  /// when nobody may.
  std::string OtherWriters(const struct stat& info) const;

 private:
  std::string name_;
  bool exists_ = true;
  bool canBeAsked_ = true;
  uid_t uid_;
  gid_t gid_;
};

}  // namespace tavlo::ctl
