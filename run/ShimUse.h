// The module in between: what the options tell it, and the files that it leaves behind.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "run/Options.h"
#include "run/judge/Findings.h"
#include "run/process/Interrupt.h"

namespace kestrel::run {

// The variables that tell it, of the form NAME=VALUE, for a run of `test` on `module` in `folder`.
// A signing in parts gets the mechanisms that sign in parts, where those that sign are asked for.
std::vector<std::string> shimEnvironment(const ShimOptions& options, const Test& test,
                                         const std::filesystem::path& module,
                                         const std::filesystem::path& folder);

// Has it say what it makes of the options, with no module behind, and takes its variables out of
// this program's own environment. Throws std::runtime_error with what it does not take.
void checkShim(const Options& options, Interrupt& interrupt);

// The variable that has kestrel say what its report has no place for, in a file of `folder`.
std::string notesVariable(const std::filesystem::path& folder);

// The files that a run left in its folder.
SideFiles readSideFiles(const std::filesystem::path& folder);

}  // namespace kestrel::run
