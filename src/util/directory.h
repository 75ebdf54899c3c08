#pragma once

#include <list>
#include <string>

namespace stdext {

/// Puts the names in `directory` (all but "." and "..", of any type, hidden ones included, without
/// the directory part) into `names`, in `alphasort` order. Returns false, with `errno` set and
/// `names` empty, when the directory cannot be read.
bool list_directory(const std::string& directory, std::list<std::string>* names);

}  // namespace stdext
