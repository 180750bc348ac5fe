// What the end of a kestrel process means.
#pragma once

#include "harness/Tests.h"
#include "run/judge/Run.h"
#include "run/process/Ended.h"

namespace kestrel::run {

// The outcome of one run of a test. `timeout` is the limit that it had, in seconds.
Run judge(const Test& test, Ended ended, double timeout);

}  // namespace kestrel::run
