#pragma once

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

/// Does what the command line asks for, and returns the process's exit status. Throws only for want
/// of memory.
int RunCommandLine(int argc, char** argv);

}  // namespace tavlo::ctl
