#pragma once

#include <string>

namespace tavlo::ctl {

/// The ID that the linker gave the running program, in hexadecimal, by which its debug file is
/// found; empty when it has none.
std::string OwnBuildId();

}  // namespace tavlo::ctl
