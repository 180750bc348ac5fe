// The module in between: what the options tell it, and what it leaves behind of a run.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "run/Interrupt.h"
#include "run/Options.h"
#include "run/Results.h"

// The variables that tell it, of the form NAME=VALUE, for a run of `test` on `module` in `folder`.
// A signing in parts gets the mechanisms that sign in parts, where those that sign are asked for.
std::vector<std::string> shimEnvironment(const ShimOptions& options, const kestrel::Test& test,
                                         const std::filesystem::path& module,
                                         const std::filesystem::path& folder);

// Has it say what it makes of the options, with no module behind, and takes its variables out of
// this program's own environment. Throws std::runtime_error with what it does not take.
void checkShim(const Options& options, Interrupt& interrupt);

// The files of a run.
struct ShimFiles {
  std::string used, trace;
};
ShimFiles readShimFiles(const std::filesystem::path& folder);

// Adds to a run which waivers were used, how long each function took, and the mechanism of the call
// that it ended in.
void addFindings(ShimFiles files, Run& run);
