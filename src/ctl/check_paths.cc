// What the daemon writes once it is its user: request bodies, crash records, the log.

#include <sys/stat.h>
#include <unistd.h>

#include "ctl/checks.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kRecordName = "/tavlo-backtrace.log";
constexpr const char* kNoLog = "the daemon goes on without a log, and without an error";
constexpr const char* kLostLog = "after SIGHUP there are no more lines in it, and no error";

std::string DirectoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The directory of a file that the daemon makes, and removes perhaps.
void CheckOwnDirectory(const CheckContext& context, const std::string& path,
                       const std::string& consequence) {
  const std::string& user = context.user.Name();
  if (CheckNeed(context,
                {path, W_OK | X_OK, consequence, "install -d -m 750 -o " + user + " " + path})) {
    CheckWriters(context, path, "they can put a file or a link there first, or read what is in it");
  }
}

// What is there already must be what the daemon writes to: it follows no link.
void CheckOwnFile(const CheckContext& context, const std::string& path,
                  const std::string& consequence) {
  struct stat info = {};
  if (::lstat(path.c_str(), &info) != 0) {
    return;
  }
  if (!S_ISREG(info.st_mode) || info.st_nlink > 1) {
    context.findings->Add(path, "is a link, or no file: " + consequence, "rm " + path);
  } else {
    CheckNeed(context, {path, W_OK, consequence, std::string()});
  }
}

// As the daemon sees it, which opens the log as whoever starts it.
bool IsAnothersLink(const std::string& path) {
  struct stat info = {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode) && info.st_uid != 0 &&
         info.st_uid != ::geteuid();
}

// Root makes a log wherever there is a directory; the daemon's user writes to it from then on.
void CheckMissingLog(const CheckContext& context, const std::string& path) {
  const std::string& user = context.user.Name();
  const std::string directory = DirectoryOf(path);
  const bool isRootFirst = ::geteuid() == 0 && !context.user.IsRoot();
  if (CheckNeed(context, {directory, isRootFirst ? F_OK : W_OK | X_OK, kNoLog,
                          "install -d -m 750 -o " + user + " " + directory}) &&
      isRootFirst) {
    context.findings->Add(
        path,
        "is missing: root makes it at the start, and user '" + user +
            "' may not write to it: " + kLostLog,
        "install -m 640 -o " + user + " /dev/null " + path + ", or start the daemon as that user");
  }
}

}  // namespace

void CheckUser(const CheckContext& context) {
  const std::string& name = context.user.Name();
  if (!context.user.Exists()) {
    context.findings->Add(
        "agentUser", "there is no user '" + name + "': the daemon does not start",
        "adduser --system --group --no-create-home " + name + ", or fix \"agentUser\"");
  } else if (!context.user.CanBeAsked()) {
    context.findings->AddUnseen("agentUser",
                                "what user '" + name + "' may do: run this as root or that user");
  }
}

void CheckBodyFile(const CheckContext& context) {
  const std::string path = context.settings.AgentDataPath();
  const std::string consequence = "a request with a body is answered with 500";
  if (!path.empty()) {
    CheckOwnDirectory(context, DirectoryOf(path), consequence);
    CheckOwnFile(context, path, consequence);
  }
}

void CheckCrashRecords(const CheckContext& context) {
  const std::string directory = context.settings.RootPrefix() + "/tmp";
  const std::string consequence = "a crash leaves no record";
  CheckOwnDirectory(context, directory, consequence);
  CheckOwnFile(context, directory + kRecordName, consequence);
}

void CheckLogFile(const CheckContext& context, const std::string& path) {
  if (path.empty()) {
    return;
  }
  struct stat info = {};
  if (IsAnothersLink(path)) {
    context.findings->Add(
        path, std::string("is a link of another user, which is not followed: ") + kNoLog,
        "rm " + path + ", or chown -h root " + path);
  } else if (::stat(path.c_str(), &info) != 0) {
    CheckMissingLog(context, path);
  } else if (!S_ISREG(info.st_mode) && !S_ISCHR(info.st_mode)) {
    context.findings->Add(path, std::string("is neither a file nor a device: ") + kNoLog,
                          "name a file with -f");
  } else {
    CheckNeed(context, {path, W_OK, kLostLog, std::string()});
  }
  CheckWriters(context, DirectoryOf(path), "they can put a link there first, or take the log away");
}

}  // namespace tavlo::ctl
