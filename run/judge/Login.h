// What a run says of the PIN: whether another login may follow.
#pragma once

#include <cstddef>
#include <string>

#include "harness/Tests.h"
#include "run/judge/Run.h"

namespace kestrel::run {

// Why no test that logs in should follow on the module: a PIN that was refused, or that may be
// another one now, or that nobody knows the fate of. Empty if there is no such reason.
// `accepted`: a login with each PIN that was handed over has passed.
std::string barToLogin(const Test& test, const Run& run, bool accepted);

std::size_t passedLogins(const Run& run);

}  // namespace kestrel::run
