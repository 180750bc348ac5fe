// The command line: options, test names, usage text.
#pragma once

#include "harness/TestManager.h"

namespace kestrel {

// Runs what the arguments name, in their order: "-pw" PIN, "-d", and names of the registry, each
// test after a set-up of its own. An unknown name prints the usage text and ends the walk.
// A stored "-pw" argument is overwritten, so that it does not show in the process list.
// argv is that of main(). Returns the exit status, always 0: a failing test ends the process.
int runCommandLine(int argc, char** argv);

}  // namespace kestrel
