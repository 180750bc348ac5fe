// Why kestrel ended with status 1.
#pragma once

#include "run/judge/Evidence.h"

namespace kestrel::run {

// From a line of the report or of standard error.
void explainFailure(const Evidence& evidence, Run& run);

}  // namespace kestrel::run
