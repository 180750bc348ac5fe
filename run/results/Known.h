// Failures that are known: a file of lines that says which, and why nobody is to be woken by them.
#pragma once

#include <string>
#include <vector>

#include "run/results/Results.h"

namespace kestrel::run {

// A line "module<TAB>test<TAB>call<TAB>value<TAB>reason". Any of the first four may be "*", for
// whatever stands there; a call or a value that there is none of is "-".
struct KnownFailure {
  std::string module, test, call, value, reason;
};

// Empty lines and those that begin with '#' say nothing. Throws std::runtime_error for a line that
// is none, with its number.
std::vector<KnownFailure> readKnown(const std::string& path);

// Marks a test that is as it was known to be, or that was known to fail and has passed.
void markKnown(const std::vector<KnownFailure>& known, const std::string& module, TestResult& test);

// The lines for what has not passed here.
std::string knownLines(const Results& results);

}  // namespace kestrel::run
