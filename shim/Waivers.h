// The waivers of the shim: known deviations of a module that it steps over. Has no code behind it,
// so that every program can include it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

enum class Waiver { lengthQuery, saltLength, fixedSlot, readOnly, count };

struct WaiverRow {
  const char* name;
  Waiver waiver;
};

inline constexpr auto waiverRows = std::to_array<WaiverRow>({
    {"length-query", Waiver::lengthQuery},
    {"salt-length", Waiver::saltLength},
    {"fixed-slot", Waiver::fixedSlot},
    {"read-only", Waiver::readOnly},
});
static_assert(waiverRows.size() == static_cast<std::size_t>(Waiver::count));

constexpr const char* waiverName(Waiver waiver) {
  return std::ranges::find(waiverRows, waiver, &WaiverRow::waiver)->name;
}
