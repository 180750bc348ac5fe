// How a test ended, and how each writer shows it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

namespace kestrel::run {

// The order is from good to bad: of several runs of a test the worst is shown.
enum class Outcome {
  passed,
  notRun,         // why: in Run::reason
  nothingTested,  // kestrel passed, but no signature was verified, nothing decrypted, no token met
  failed,
  couldNotLoad,
  crashed,
  hung,
};

// What a test is worth to whoever waits for a verdict, a build server or the exit status: one that
// ran and did not pass is a failure, one that could not run to an end is an error. Excused is what
// was known, or was no better before.
enum class Grade { passed, excused, failure, error };

struct OutcomeRow {
  Outcome outcome;
  const char* name;
  const char* color;  // of a terminal
  const char* style;  // of the HTML page
  const char* mark;   // beside the name, where a page has it: nothing is said by colour alone
  Grade grade;
};

inline constexpr auto outcomeRows = std::to_array<OutcomeRow>({
    {Outcome::passed, "passed", "32", "passed", "✓", Grade::passed},
    {Outcome::notRun, "not run", "33", "notrun", "–", Grade::error},
    {Outcome::nothingTested, "nothing tested", "33", "nothing", "○", Grade::failure},
    {Outcome::failed, "failed", "31", "failed", "✗", Grade::failure},
    {Outcome::couldNotLoad, "could not load", "31", "crashed", "✗", Grade::error},
    {Outcome::crashed, "crashed", "31", "crashed", "✗", Grade::error},
    {Outcome::hung, "hung", "31", "crashed", "✗", Grade::error},
});

constexpr const OutcomeRow& rowOf(Outcome outcome) {
  return outcomeRows[static_cast<std::size_t>(outcome)];
}

static_assert(std::ranges::all_of(outcomeRows, [](const OutcomeRow& row) {
  return &rowOf(row.outcome) == &row;
}));

constexpr const char* outcomeName(Outcome outcome) {
  return rowOf(outcome).name;
}

}  // namespace kestrel::run
