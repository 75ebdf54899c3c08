#pragma once

#include <mutex>

namespace stdext {

/// For descriptors that a library opens without making them close-on-exec. Whoever has it open one
/// holds this until the descriptor is marked or closed, and whoever starts a program holds it
/// during `fork`, so that no program starts in between and inherits it. Held for a moment only:
/// scripts wait for it, so that a name, for one, is looked up before.
std::mutex& exec_mutex();

/// Marks the descriptor. One that is not open (-1) is ignored.
void set_close_on_exec(int fd);

}  // namespace stdext
