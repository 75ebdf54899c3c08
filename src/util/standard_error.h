#pragma once

namespace stdext {

/// Whether standard error takes a line without making the caller wait for long: it does, or begins
/// to within 100 ms. Once it has not, it is no longer waited for until it does. Any thread may ask,
/// in a signal handler too.
///
/// What is written after that may be 4096 bytes long. Another process that writes to the same pipe
/// may be faster, and a terminal may take less: only with `own_standard_error` nobody waits then.
bool standard_error_takes_a_line();

/// Opens the pipe or terminal that standard error is once more, for this process alone and so that
/// nobody ever waits for it: what it does not take is lost. What other processes have stays as it
/// is. Where it cannot be opened (no /proc, a socket, a pipe of somebody else) nothing changes. To
/// be called while there is one thread.
void own_standard_error();

}  // namespace stdext
