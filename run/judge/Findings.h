// What the shim says of a run: the waivers that it used and its trace.
#pragma once

#include <string>

#include "run/judge/Run.h"

namespace kestrel::run {

// The content of the files that a run leaves beside its report: the shim's two, and kestrel's
// notes.
struct SideFiles {
  std::string used = {}, trace = {}, notes = {};
};

// Adds to a run which waivers were used, how long each function took, and the mechanism of the call
// that it ended in.
void addFindings(SideFiles files, Run& run);

}  // namespace kestrel::run
