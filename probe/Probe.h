// A whole run, from the module's path to the totals.
#pragma once

#include "probe/ProbeOptions.h"

namespace kestrel::probe {

// The exit status: 0 if nothing was wrong, deviating, crashed or hung, else 1. Throws
// std::exception for what keeps it from running.
int runProbe(const Options& options);

}  // namespace kestrel::probe
