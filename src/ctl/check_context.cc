#include "ctl/check_context.h"

#include <algorithm>
#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

#include "util/error_text.h"
#include "util/file.h"

namespace tavlo::ctl {

namespace {

std::string Verb(int mode) {
  switch (mode) {
    case R_OK:
      return "read";
    case R_OK | W_OK:
      return "read and write";
    case R_OK | X_OK:
      return "list";
    case X_OK:
      return "execute";
    default:
      return "write to";
  }
}

void AddDenial(const CheckContext& context, const Need& need) {
  const std::string& user = context.user.Name();
  const std::string closed = context.user.ClosedDirectory(need.path);
  const std::string reason = closed.empty() ? "" : ", who may not enter " + closed + ",";
  context.findings->Add(
      need.path,
      "user '" + user + "'" + reason + " may not " + Verb(need.mode) + " it: " + need.consequence,
      closed.empty() ? "chown " + user + " " + need.path + ", or widen its mode"
                     : "chmod +x " + closed + ", or put the file elsewhere");
}

}  // namespace

bool CheckNeed(const CheckContext& context, const Need& need) {
  struct stat info = {};
  if (::stat(need.path.c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) {
      context.findings->Add(need.path, "is missing: " + need.consequence, need.cure);
    } else {
      context.findings->AddUnseen(need.path, stdext::error_number_and_text(errno));
    }
    return false;
  }
  if (!context.user.May(need.path, need.mode)) {
    AddDenial(context, need);
  }
  return true;
}

void CheckWriters(const CheckContext& context, const std::string& path,
                  const std::string& consequence) {
  struct stat info = {};
  if (::stat(path.c_str(), &info) != 0) {
    return;
  }
  const std::string writers = context.user.OtherWriters(info);
  if (!writers.empty()) {
    const std::string user = context.user.IsRoot() ? "" : " or '" + context.user.Name() + "'";
    context.findings->Add(path, writers + " may write there: " + consequence,
                          "chmod go-w " + path + ", and chown it to root" + user);
  }
}

std::optional<std::string> ReadContent(const CheckContext& context, const std::string& path) {
  std::string content;
  const Orx::Status status = stdext::file::without_lock(path).read(stdext::kMaxFileSize, &content);
  if (status.IsOk()) {
    return content;
  }
  if (context.user.May(path, R_OK)) {
    context.findings->AddUnseen(path, status.Message());
  }
  return std::nullopt;
}

std::string PlaceInFile(const std::string& path, const std::string& text, size_t offset) {
  const std::string before = text.substr(0, offset);
  const auto lines = std::count(before.begin(), before.end(), '\n');
  const size_t lineStart = before.rfind('\n') + 1;  // npos + 1 is 0
  return path + ":" + std::to_string(lines + 1) + ":" +
         std::to_string(before.size() - lineStart + 1);
}

}  // namespace tavlo::ctl
