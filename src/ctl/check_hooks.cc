// The hook scripts: whether the daemon can run each entry of their directories, and who can change
// it.

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <list>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

#include "ctl/checks.h"
#include "ctl/hook_events.h"
#include "ctl/text.h"
#include "util/directory.h"
#include "util/error_text.h"

namespace tavlo::ctl {

namespace {

// What editors and package managers leave beside a file that has been changed.
constexpr const char* kBackupEndings[] = {
    "~",    ".bak",       ".orig",     ".old",      ".rej",    ".save",   ".swp",
    ".tmp", ".dpkg-dist", ".dpkg-new", ".dpkg-old", ".rpmnew", ".rpmsave"};

constexpr const char* kCountsAsOne =
    "it counts as a script that answers 1, which ends a request with an empty 200";

constexpr const char* kTheyDecide = "they decide what the router does";

constexpr size_t kMostRead = 65536;  // bytes of a script
constexpr const char* kBlanks = " \t";

bool Exists(const std::string& path) {
  struct stat info = {};
  return ::stat(path.c_str(), &info) == 0;
}

Need Listing(const std::string& directory) {
  return {directory, R_OK | X_OK, "its events fail, and each request is answered with 500",
          "mkdir -p -m 755 " + directory};
}

bool IsBackup(const std::string& name) {
  const bool isEmacsOwn = BeginsWith(name, ".#") || (name.front() == '#' && name.size() > 1);
  return isEmacsOwn || std::any_of(std::begin(kBackupEndings), std::end(kBackupEndings),
                                   [&](const char* ending) { return EndsWith(name, ending); });
}

// Takes the next word, which a blank ends, off the front of a line; empty when there is none.
std::string TakeWord(std::string_view* line) {
  line->remove_prefix(std::min(line->find_first_not_of(kBlanks), line->size()));
  std::string word(line->substr(0, line->find_first_of(kBlanks)));
  line->remove_prefix(word.size());
  return word;
}

bool IsInPath(const CheckContext& context, const std::string& program) {
  const char* const variable = std::getenv("PATH");
  const std::string path = variable != nullptr ? variable : "/bin:/usr/bin";
  for (size_t begin = 0; begin <= path.size();) {
    const size_t end = std::min(path.find(':', begin), path.size());
    if (context.user.May(path.substr(begin, end - begin) + "/" + program, X_OK)) {
      return true;
    }
    begin = end + 1;
  }
  return false;
}

// `line` is the first one, behind its "#!".
void CheckInterpreter(const CheckContext& context, const std::string& path, std::string_view line) {
  const std::string interpreter = TakeWord(&line);
  const std::string argument = TakeWord(&line);
  if (interpreter.empty()) {
    return;  // the shell takes it then
  }
  if (!context.user.May(interpreter, X_OK)) {
    const std::string trouble = Exists(interpreter)
                                    ? " may not be executed by user '" + context.user.Name() + "': "
                                    : " is not there: ";
    context.findings->Add(path, "its interpreter " + interpreter + trouble + kCountsAsOne,
                          "install it, or name another one in the first line");
  } else if (EndsWith(interpreter, "/env") && !argument.empty() && argument.front() != '-' &&
             !IsInPath(context, argument)) {
    context.findings->Add(path,
                          "env does not find its interpreter " + argument +
                              " in PATH: it fails, and a request is answered with 500",
                          "install it, or name its whole path in the first line");
  }
}

// The beginning of a script; empty for a program, which is the kernel's business.
std::string ScriptText(const CheckContext& context, const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kMostRead, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(file.gcount()));
  if (!file.is_open() && context.user.May(path, R_OK)) {
    context.findings->AddUnseen(path, "it cannot be read");
  }
  return BeginsWith(text, "#!") ? text : std::string();
}

void CheckText(const CheckContext& context, const std::string& path) {
  const std::string text = ScriptText(context, path);
  if (text.empty()) {
    return;
  }
  if (!context.user.May(path, R_OK)) {
    context.findings->Add(path,
                          "user '" + context.user.Name() +
                              "' may not read it, which its interpreter must: it fails, and a "
                              "request is answered with 500",
                          "chmod 755 " + path);
  }
  if (text.find("\r\n") != std::string::npos) {
    context.findings->Add(path,
                          "its lines end in a carriage return and a line feed: it cannot be "
                          "executed, or does something else",
                          "sed -i 's/\\r$//' " + path);
  } else {
    CheckInterpreter(context, path, std::string_view(text).substr(2, text.find('\n') - 2));
  }
}

void CheckScript(const CheckContext& context, const std::string& directory,
                 const std::string& name) {
  const std::string path = directory + "/" + name;
  struct stat info = {};
  if (IsBackup(name)) {
    context.findings->Add(path, "has the name of a backup, and is run like all that lies there",
                          "keep it elsewhere");
    return;
  }
  if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
    context.findings->Add(path, std::string("is no file that can be executed: ") + kCountsAsOne,
                          "keep it elsewhere");
    return;
  }
  if (!context.user.May(path, X_OK)) {
    context.findings->Add(path,
                          "user '" + context.user.Name() + "' may not execute it: " + kCountsAsOne,
                          "chmod 755 " + path + ", or keep it elsewhere");
  }
  CheckWriters(context, path, kTheyDecide);
  CheckText(context, path);
}

// The directory of one event below one root, which may be missing. Returns whether there is
// anything in it.
bool CheckEvent(const CheckContext& context, const std::string& directory) {
  std::list<std::string> names;
  if (!Exists(directory) || !CheckNeed(context, Listing(directory)) ||
      !context.user.May(directory, R_OK | X_OK)) {
    return false;
  }
  if (!stdext::list_directory(directory, &names)) {
    context.findings->AddUnseen(directory, stdext::error_number_and_text(errno));
  }
  CheckWriters(context, directory, kTheyDecide);
  for (const std::string& name : names) {
    CheckScript(context, directory, name);
  }
  return !names.empty();
}

}  // namespace

void CheckHooks(const CheckContext& context) {
  const bool areAsked = !context.settings.AgentDataPath().empty();
  for (const HookEvent& event : kHookEvents) {
    const std::string internal = context.settings.InternalHooksDirectory() + "/" + event.name;
    const std::string external = context.settings.ExternalHooksDirectory() + "/" + event.name;
    if (event.isRequest && areAsked && !Exists(internal)) {
      CheckNeed(context, Listing(internal));
    }
    for (const std::string& directory : {internal, external}) {
      if (CheckEvent(context, directory) && event.isRequest && !areAsked) {
        context.findings->Add(
            directory, "its scripts see no request, as \"agentDataPath\" is empty",
            "set it to a path in a directory of user '" + context.user.Name() + "' alone");
      }
    }
  }
}

}  // namespace tavlo::ctl
