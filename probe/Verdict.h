// What a check can come to.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace kestrel::probe {

enum class Verdict {
  ok,
  vague,
  deviates,
  wrong,
  refuses,
  weak,
  absent,
  notApplicable,
  crashed,
  hung,
};

inline constexpr std::size_t verdictCount = 10;

// How a verdict is shown and what it means for the run.
struct VerdictRow {
  Verdict verdict;
  const char* name;   // in every output
  const char* color;  // of a terminal, as SGR parameters
  bool fault;         // of the module: the exit status is 1
  bool worthReading;  // stands at the end of the terminal's report
};

// Worst first: the order in which findings are shown.
inline constexpr std::array<VerdictRow, verdictCount> verdictRows{{
    {Verdict::wrong, "wrong", "31;1", true, true},
    {Verdict::crashed, "crashed", "31;1", true, true},
    {Verdict::hung, "hung", "31;1", true, true},
    {Verdict::deviates, "deviates", "31", true, true},
    {Verdict::refuses, "refuses", "33", false, true},
    {Verdict::weak, "weak", "33", false, true},
    {Verdict::vague, "vague", "36", false, false},
    {Verdict::notApplicable, "not applicable", "2", false, false},
    {Verdict::absent, "absent", "2", false, false},
    {Verdict::ok, "ok", "32", false, false},
}};

constexpr const VerdictRow& rowOf(Verdict verdict) {
  for (const VerdictRow& row : verdictRows) {
    if (row.verdict == verdict) return row;
  }
  return verdictRows.back();
}

}  // namespace kestrel::probe
