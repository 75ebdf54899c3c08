#pragma once

#include <cstdint>
#include <string>

#include "util/status.h"

namespace tavlo::ctl {

/// Sends a GET for `uri` to the host, and waits for the beginning of an answer, whatever its
/// status. Blocks for three seconds at most, and for as long as the look-up of a name takes. The
/// failure's message says why none came.
Orx::Status AskDestination(const std::string& address, uint16_t port, const std::string& uri);

}  // namespace tavlo::ctl
