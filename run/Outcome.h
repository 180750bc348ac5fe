// What the end of a kestrel process means.
#pragma once

#include <string>

#include "harness/Tests.h"
#include "run/Process.h"
#include "run/Results.h"

// The outcome of one run of a test. `timeout` is the limit that it had, in seconds.
Run judge(const kestrel::Test& test, Ended ended, double timeout);

// Why no test that logs in should follow on the module: a PIN that was refused, or that may be
// another one now, or that nobody knows the fate of. Empty if there is no such reason.
// `accepted`: a login with each PIN that was handed over has passed.
std::string barToLogin(const kestrel::Test& test, const Run& run, bool accepted);

std::size_t passedLogins(const Run& run);
