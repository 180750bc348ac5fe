// The command line of kestrel-probe.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kestrel::probe {

struct Options {
  std::string module;              // empty only where the checks are listed
  std::vector<std::string> names;  // of areas or checks; empty for the default
  std::optional<std::string> token, initArguments;
  std::string pinFile;  // empty for none
  bool list = false, leaveObjects = false, undefined = false, verbose = false;
  double timeout = 10;  // seconds, of one check
  std::string json;     // a file, "-" for standard output; empty for none
};

// What the command line asks for; an exit status instead when nothing is to be done: 0 after help
// and version, 2 after wrong usage.
struct CommandLine {
  std::optional<int> status;
  Options options;
};

CommandLine readCommandLine(int argc, char** argv);

}  // namespace kestrel::probe
