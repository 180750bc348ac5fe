// The command line of kestrel-run.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/ModuleNames.h"
#include "harness/Tests.h"
#include "run/write/Writers.h"

namespace kestrel::run {

// What the module in between is told; it is there only when one of these is given.
struct ShimOptions {
  std::optional<std::string> token, mechanisms, initArguments;
  std::vector<std::string> waivers;
  bool trace = false;

  bool isAsked() const { return token || mechanisms || initArguments || !waivers.empty() || trace; }

  // What decides about an outcome, as it is typed: "--token own".
  std::vector<std::string> words() const;
};

struct Options {
  std::vector<const Test*> tests;
  std::vector<NamedModule> modules;
  bool ownToken = false;  // no module was named: it is the software token
  bool everyKey = false;
  std::vector<std::string> pinFiles;  // FILE, or NAME=FILE for one of the modules
  double timeout = 120;               // seconds, of one test; 0 for none
  bool lastTry = false;               // also where a wrong PIN would lock the token
  unsigned repeat = 1;
  std::string between;       // a shell command; empty for none
  std::string baseline;      // a folder; empty for none
  bool changedFails = true;  // of the comparison, as what is broken does
  std::string known;         // a file; empty for none
  Destinations destinations;
  std::filesystem::path kestrel;
  bool quiet = false;
  ShimOptions shim;
};

// What the command line asks for; an exit status instead when nothing is to be run: 0 after help
// and version, 2 after wrong usage. Throws std::runtime_error for what is not there.
struct CommandLine {
  std::optional<int> status;
  Options options;
};

CommandLine readCommandLine(int argc, char** argv);

}  // namespace kestrel::run
