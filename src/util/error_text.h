#pragma once

#include <string>

namespace stdext {

/// The system's text for an error number. Any thread may call it.
std::string strerror(int errnum);

/// The error number in decimal, a blank, and its text: the form in which every failed system call
/// is reported, for example "2 No such file or directory".
std::string error_number_and_text(int errnum);

}  // namespace stdext
