#pragma once

#include <functional>

namespace test {

/// Runs `body` on a thread of its own while another one seems to be logging, calls `check` when it
/// waits for its turn, and then lets it go on.
void AwaitTurn(const std::function<void()>& body, const std::function<void()>& check);

}  // namespace test
