// What the shim says of a run: the waivers that it used and its trace.
#pragma once

#include <string>

#include "run/judge/Run.h"

namespace kestrel::run {

// The content of the shim's files.
struct ShimFiles {
  std::string used, trace;
};

// Adds to a run which waivers were used, how long each function took, and the mechanism of the call
// that it ended in.
void addFindings(ShimFiles files, Run& run);

}  // namespace kestrel::run
