// The files that the options ask for.
#pragma once

#include "run/Options.h"
#include "run/Results.h"

// What --baseline names, if it does. Throws std::runtime_error.
std::optional<Results> readBaseline(const Options& options);

// Throws std::system_error for a file that cannot be written, before anything is run for it. Makes
// the folder of --out.
void prepareFiles(const Options& options);

// Writes all of them, each whole or not at all. One that cannot be written leaves the others to be:
// the first such error is thrown in the end.
void writeFiles(const Options& options, const Results& results);

// Whether one of them is standard output.
bool usesStandardOutput(const Options& options);
