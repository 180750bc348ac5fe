#include "shim/Names.h"

#include <algorithm>
#include <array>

namespace {

struct Row {
  CK_ULONG value;
  std::string_view name;
};

// In the order of the header: where a value has two names, the first is the usual one.
constexpr auto rows = std::to_array<Row>({
#include "Names.inc"
});

}  // namespace

std::string_view nameOf(std::string_view prefix, CK_ULONG value) {
  const auto* row = std::ranges::find_if(rows, [&](const Row& candidate) {
    return candidate.value == value && candidate.name.starts_with(prefix);
  });
  return row == rows.end() ? std::string_view() : row->name;
}

std::optional<CK_ULONG> valueOf(std::string_view name) {
  const auto* row = std::ranges::find(rows, name, &Row::name);
  return row == rows.end() ? std::nullopt : std::optional(row->value);
}
