#pragma once

#include <string>

#include "util/status.h"

namespace stdext {

/// Makes the whole process the group and the user of the named account, for good. Supplementary
/// groups stay as they are. To be called once, while there is one thread. Failure messages say
/// which step failed; when it was the last one, the group has been changed.
Orx::Status drop_privilege(const std::string& user);

}  // namespace stdext
