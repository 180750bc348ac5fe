// Starts a process whose every stream is ours.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/Descriptor.h"
#include "run/process/OperatorTerminal.h"

namespace kestrel {

struct Command {
  std::filesystem::path program;
  std::vector<std::string> arguments;         // without the program's name
  std::filesystem::path folder;               // to run in; empty for the current one
  std::vector<std::string> environment = {};  // beside this program's own, of the form NAME=VALUE
};

struct Child {
  pid_t process = -1;
  Descriptor event;  // readable when it has ended
  // The other ends of its standard streams, none of which blocks. With a terminal the first two are
  // that one's.
  Descriptor input, output, errors;
};

// Starts a program in a session of its own, with no descriptor of ours but its standard streams:
// two pipes and, for input and output, two more or a new terminal like `model` (unless that is
// null). Throws std::system_error.
Child spawn(const Command& command, const OperatorTerminal* model);

}  // namespace kestrel
