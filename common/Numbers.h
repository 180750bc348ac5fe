// Numbers in a text.
#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace kestrel {

// The number that all of a text is; none if it is anything else, or too large for its type.
template <typename Number>
std::optional<Number> readNumber(std::string_view text, int base = 10) {
  Number number{};
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number, base);
  if (read.ec != std::errc() || read.ptr != end) return std::nullopt;
  return number;
}

}  // namespace kestrel
