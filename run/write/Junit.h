// The results as JUnit XML, which build servers read; kestrel-run(1) says what becomes of what.
#pragma once

#include <string>

#include "run/results/Results.h"

namespace kestrel::run {

std::string toJunit(const Results& results);

}  // namespace kestrel::run
