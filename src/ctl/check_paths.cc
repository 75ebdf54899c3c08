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

// Root makes a log wherever there is a directory; the daemon's user writes to it from then on.
void CheckMissingLog(const CheckContext& context, const std::string& path) {
  const std::string& user = context.user.Name();
  const std::string directory = DirectoryOf(path);
  const bool isRootFirst = ::geteuid() == 0 && !context.user.IsRoot();
  struct stat info = {};
  if (!isRootFirst || ::stat(directory.c_str(), &info) != 0) {
    CheckNeed(context,
              {directory, W_OK | X_OK, kNoLog, "install -d -m 750 -o " + user + " " + directory});
  } else {
    context.findings->Add(
        path,
        "is missing: root makes it at the start, and user '" + user +
            "' may not write to it: " + kLostLog,
        "install -m 640 -o " + user + " /dev/null " + path + ", or start the daemon as that user");
  }
}

// The daemon follows a link of root's, or of whoever starts it.
void CheckLogLink(const CheckContext& context, const std::string& path, uid_t owner) {
  struct stat target = {};
  const std::string& user = context.user.Name();
  if (owner != 0 && owner != ::geteuid()) {
    const std::string reason =
        owner == context.user.Id()
            ? "a link of the daemon's user, not followed where root starts it"
            : "a link of another user, which is not followed";
    context.findings->Add(path, "is " + reason + ": " + kNoLog,
                          "rm " + path + ", or chown -h root " + path);
  } else if (::stat(path.c_str(), &target) != 0) {
    context.findings->Add(
        path, std::string("is a link to what is missing: where that cannot be made, ") + kNoLog,
        "make the file that it leads to, for user '" + user + "'");
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
  struct stat link = {};
  struct stat info = {};
  const bool isThere = ::stat(path.c_str(), &info) == 0;
  if (::lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
    CheckLogLink(context, path, link.st_uid);
  } else if (!isThere) {
    CheckMissingLog(context, path);
  }
  if (S_ISDIR(info.st_mode) || S_ISSOCK(info.st_mode)) {
    context.findings->Add(path, std::string("is no file: ") + kNoLog, "name a file with -f");
  } else if (isThere) {
    CheckNeed(context, {path, W_OK, kLostLog, std::string()});
  }
  CheckWriters(context, DirectoryOf(path), "they can put a link there first, or take the log away");
}

}  // namespace tavlo::ctl
