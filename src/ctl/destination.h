#pragma once

#include <cstdint>
#include <string>

#include "util/status.h"

namespace tavlo::ctl {

/// Sends a GET for `uri` to the host, and waits for the beginning of an answer, whatever its
/// status: for three seconds at most, beside the look-up of a name. The failure's message says why
/// none came.
Orx::Status AskDestination(const std::string& address, uint16_t port, const std::string& uri);

}  // namespace tavlo::ctl
