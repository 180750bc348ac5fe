// This run held against an earlier one: a release of a module against the release before.
#pragma once

#include <string>
#include <vector>

#include "run/results/Results.h"

namespace kestrel::run {

// One entry for every test of either, in the order of `now`, what only `before` has behind it.
// Modules belong together by their names, and when there is one in each run, whatever its name is.
// What differs between two honest runs of one module is no change; kestrel-run(1) says what it is.
std::vector<Change> compare(const Results& before, const Results& now);

// A report without what differs between two honest runs, fit to be shown.
std::string comparable(const std::string& report);

}  // namespace kestrel::run
