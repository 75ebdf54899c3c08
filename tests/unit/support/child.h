#pragma once

#include <functional>

#include <sys/types.h>

namespace test {

/// Runs `body` in a forked child that ends without static destructors; returns the child's status
/// as `waitpid` gives it. A body that returns ends the child with status 0.
int RunInChild(const std::function<void()>& body);

}  // namespace test
