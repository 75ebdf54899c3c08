#pragma once

#include "ctl/command.h"

namespace tavlo::ctl {

/// `tavloctl log`: what the daemon's log says of its requests and troubles.
extern const Command kLog;

}  // namespace tavlo::ctl
