// What the end of a kestrel process means.
#pragma once

#include "harness/Tests.h"
#include "run/judge/Run.h"
#include "run/process/Ended.h"

// The outcome of one run of a test. `timeout` is the limit that it had, in seconds.
Run judge(const kestrel::Test& test, Ended ended, double timeout);
