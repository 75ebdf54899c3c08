#pragma once

#include "ctl/command.h"

namespace tavlo::ctl {

/// `tavloctl check`: finds what would keep the daemon from working, without starting it.
extern const Command kCheck;

}  // namespace tavlo::ctl
