// The files that hold the results, and the folder of an earlier run.
#pragma once

#include <optional>
#include <string>

#include "run/results/Results.h"

namespace kestrel::run {

// Where the results go to.
struct Destinations {
  std::string out;                                 // a folder; empty for none
  bool force = false;                              // also over the results that are there already
  std::string junit, json, markdown, html, known;  // files; "-" is standard output; empty for none
};

// The results that `folder`, once a Destinations::out, holds. Throws std::runtime_error.
Results readBaseline(const std::string& folder);

// Throws std::system_error for a file that cannot be written, before anything is run for it, and
// for results that nobody asked to write over. Makes the folder `out`.
void prepareFiles(const Destinations& destinations);

// Writes all of them, each whole or not at all. One that cannot be written leaves the others to be:
// the first such error is thrown in the end.
void writeFiles(const Destinations& destinations, const Results& results);

// Whether one of them is standard output.
bool usesStandardOutput(const Destinations& destinations);

}  // namespace kestrel::run
