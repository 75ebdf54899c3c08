#include "ctl/check_context.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "util/error_text.h"

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

TextPlaces::TextPlaces(std::string path, const std::string& text)
    : path_(std::move(path)), size_(text.size()) {
  for (size_t end = text.find('\n'); end != text.npos; end = text.find('\n', end + 1)) {
    lineStarts_.push_back(end + 1);
  }
}

std::string TextPlaces::Of(size_t offset) const {
  const size_t at = std::min(offset, size_);
  const auto next = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), at);
  return path_ + ":" + std::to_string(next - lineStarts_.begin()) + ":" +
         std::to_string(at - *std::prev(next) + 1);
}

}  // namespace tavlo::ctl
