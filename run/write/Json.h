// The results as JSON, which kestrel-run(1) describes: what --json writes and --out keeps as
// results.json, and what --baseline reads.
#pragma once

#include <string>

#include "run/results/Results.h"

namespace kestrel::run {

std::string toJson(const Results& results);

// The results in a text of toJson(), with validUtf8() applied to what a module said and without the
// changes against a baseline of their own. Throws std::runtime_error with what is wrong with a text
// that is damaged, not ours, or of a newer version.
Results fromJson(const std::string& text);

}  // namespace kestrel::run
