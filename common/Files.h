// Files that are whole or not there.
#pragma once

#include <string>

namespace kestrel {

// Writes `content` to `path`, "-" being standard output. A file that is there is replaced in one
// step, with its permissions, when all of the new one is on the disk, and stays as it is when that
// fails; what is no plain file (a terminal, a pipe, /dev/stdout) is written to. Throws
// std::system_error, whose text has the path.
void writeFile(const std::string& path, const std::string& content);

}  // namespace kestrel
