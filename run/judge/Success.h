// What a run with exit status 0 is worth, which kestrel leaves to the reader's eye.
#pragma once

#include "run/judge/Evidence.h"

namespace kestrel::run {

void judgeSuccess(const Evidence& evidence, Run& run);

}  // namespace kestrel::run
