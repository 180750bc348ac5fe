// The lines of a text.
#pragma once

#include <algorithm>
#include <string_view>

namespace kestrel {

// Takes the first line from `rest`, which is not empty, with its end if it has one.
inline std::string_view takeLine(std::string_view& rest) {
  const std::string_view line = rest.substr(0, std::min(rest.find('\n'), rest.size() - 1) + 1);
  rest.remove_prefix(line.size());
  return line;
}

inline std::string_view withoutEnd(std::string_view line) {
  if (line.ends_with('\n')) line.remove_suffix(1);
  return line;
}

}  // namespace kestrel
