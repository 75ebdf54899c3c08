#include "util/privilege.h"

#include <cerrno>

#include <pwd.h>
#include <unistd.h>

namespace stdext {

Orx::Status drop_privilege(const std::string& user) {
  const passwd* const account = ::getpwnam(user.c_str());
  if (account == nullptr) {
    return Orx::Status::Failure("Failed to resolve user id '" + user + "'");
  }
  // The group first: without root's rights it could not be changed any more.
  if (::setgid(account->pw_gid) != 0) {
    return Orx::Status::Failure("Failed to set gid errno " + std::to_string(errno));
  }
  if (::setuid(account->pw_uid) != 0) {
    return Orx::Status::Failure("Failed to set uid errno " + std::to_string(errno));
  }
  return Orx::Status::Ok();
}

}  // namespace stdext
