#pragma once

/// tavloctl does one thing in one thread and ends, so nothing in here is meant for several; `hook`
/// alone has more, to wait for signals and to run scripts. What a command cannot do it says on
/// standard error, or among its findings; it throws only for want of memory or of threads.
namespace tavlo::ctl {

/// How every command ends, as far as its usage says no more; scripts rely on it.
enum ExitStatus : int {
  kClean = 0,         ///< all is well
  kFindings = 1,      ///< it was done, and found something
  kCouldNotLook = 2,  ///< it could not be done: a wrong option, a file that cannot be read
};

/// One command of tavloctl. `run` gets the arguments behind the command's name, with "tavloctl
/// NAME" in front of them for getopt's messages, and returns the exit status.
struct Command {
  const char* name;
  const char* summary;  ///< its line in `tavloctl --help`
  const char* usage;    ///< what `tavloctl NAME --help` prints, with a line feed at its end
  int (*run)(int argc, char** argv);
};

/// Finds what would keep the daemon from working, without starting it.
extern const Command kCheck;

/// Runs the scripts of an event as the daemon does, and tells what it would make of their answers.
extern const Command kHook;

/// Tells what the daemon's log says of its requests and troubles.
extern const Command kLog;

/// Does what the command line asks for, and returns the process's exit status. Throws what commands
/// throw.
int RunCommandLine(int argc, char** argv);

}  // namespace tavlo::ctl
