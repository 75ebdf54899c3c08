#include "ctl/daemon_user.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace tavlo::ctl {

namespace {

std::string UserName(uid_t uid) {
  const passwd* const account = ::getpwuid(uid);
  return account != nullptr ? account->pw_name : std::to_string(uid);
}

std::string GroupName(gid_t gid) {
  const group* const found = ::getgrgid(gid);
  return found != nullptr ? found->gr_name : std::to_string(gid);
}

}  // namespace

DaemonUser::DaemonUser(const std::string& agentUser)
    : name_(agentUser), uid_(::geteuid()), gid_(::getegid()) {
  if (name_.empty()) {
    name_ = UserName(uid_);
    return;
  }
  const passwd* const account = ::getpwnam(name_.c_str());
  exists_ = account != nullptr;
  canBeAsked_ = exists_;
  if (!exists_ || account->pw_uid == ::getuid()) {
    return;
  }
  uid_ = account->pw_uid;
  gid_ = account->pw_gid;
  canBeAsked_ = ::initgroups(name_.c_str(), gid_) == 0 &&
                ::setregid(gid_, static_cast<gid_t>(-1)) == 0 &&
                ::setreuid(uid_, static_cast<uid_t>(-1)) == 0;
}

bool DaemonUser::May(const std::string& path, int mode) const {
  return !canBeAsked_ || ::access(path.c_str(), mode) == 0;
}

std::string DaemonUser::ClosedDirectory(const std::string& path) const {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    std::string directory = path.substr(0, slash);
    if (!May(directory, X_OK)) {
      return directory;
    }
  }
  return {};
}

std::string DaemonUser::OtherWriters(const struct stat& info) const {
  if ((info.st_mode & S_IWOTH) != 0) {
    return "everybody";
  }
  if ((info.st_mode & S_IWGRP) != 0 && info.st_gid != 0 && info.st_gid != gid_) {
    return "group '" + GroupName(info.st_gid) + "'";
  }
  const bool isOwnersOwn = info.st_uid == 0 || info.st_uid == uid_;
  return isOwnersOwn ? std::string() : "user '" + UserName(info.st_uid) + "'";
}

}  // namespace tavlo::ctl
