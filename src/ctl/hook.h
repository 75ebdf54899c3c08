#pragma once

#include "ctl/command.h"

namespace tavlo::ctl {

/// `tavloctl hook`: runs the scripts of an event as the daemon does, and tells what it would make
/// of their answers.
extern const Command kHook;

}  // namespace tavlo::ctl
