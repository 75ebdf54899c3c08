#include <cstdio>
#include <exception>

#include "ctl/command.h"

int main(int argc, char** argv) {
  try {
    return tavlo::ctl::RunCommandLine(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tavloctl: %s\n", error.what());
    return tavlo::ctl::kCouldNotLook;
  }
}
