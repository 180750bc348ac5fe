// What differs between two texts, line by line.
#pragma once

#include <string>

namespace kestrel::run {

// The unified diff of two texts, without its two lines of names; empty if they are equal. Its cost
// and its length are bounded: of texts that differ too much, all lines in between count as changed,
// and what is too long is cut, and says so.
std::string unifiedDiff(const std::string& before, const std::string& now);

}  // namespace kestrel::run
