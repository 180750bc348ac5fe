// What the end of a kestrel process means.
#pragma once

#include <string>
#include <string_view>

#include "harness/Tests.h"
#include "run/judge/Run.h"
#include "run/process/Ended.h"

namespace kestrel::run {

// The outcome of one run of a test. `timeout` is the limit that it had, in seconds; `notes` is what
// kestrel said beside its report.
Run judge(const Test& test, Ended ended, double timeout, std::string_view notes = {});

// Of a token with a key and nothing that signs with it, as far as its mechanisms are listed.
inline constexpr std::string_view noMechanism = "no mechanism for its key";

// Why no other test can fare better on the module: it could not be loaded, or did not come through
// C_Initialize. Empty if there is no such reason.
std::string barToModule(const Run& run);

}  // namespace kestrel::run
