// What the runs of kestrel came to: filled by the runs, read by every writer, kept in results.json.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "run/judge/Run.h"
#include "run/results/Facts.h"

namespace kestrel::run {

// One test on one module: as many runs as --repeat asks for, at least one.
struct TestResult {
  std::string name;
  std::vector<Run> runs;
  std::string known = {};    // why it was known not to pass; empty for none, also if it has passed
  bool knownPassed = false;  // a known failure that is none any more

  const Run& shown() const;  // the worst run, the first of these
  std::size_t passedRuns() const;
  double seconds() const;  // of all runs
};

struct ModuleResult {
  std::string name;  // tells it from the other modules of the run
  std::string path;  // its real path
  std::vector<TestResult> tests;
  ModuleFacts facts = {};

  const TestResult* find(const std::string& test) const;  // null if there is none
};

// A test against the same one of an earlier run.
struct Change {
  enum Kind { same, fixed, broken, changed } kind = same;
  std::string module, test;
  // Of outcome and report, as a unified diff. Of `same` only what does not count: a version, a
  // label.
  std::string difference;
};

using OutcomeCounts = std::array<std::size_t, outcomeRows.size()>;  // by the outcome's number

struct Results {
  std::string kestrelVersion;
  std::string started;  // ISO 8601, with the offset from UTC
  bool interrupted = false;
  std::vector<ModuleResult> modules;
  std::vector<std::string> options = {};            // of the runs: "--token own"
  std::optional<std::vector<Change>> changes = {};  // of every test, when there is a baseline
  std::string against = {};                         // the baseline's name
  std::vector<std::string> otherOptions = {};       // in which the baseline's runs differ
  bool changedFails = true;                         // what is neither better nor worse

  // Calls `take` with each test of each module and with the module.
  template <typename Take>
  void eachTest(Take take) const {
    for (const ModuleResult& module : modules) {
      for (const TestResult& test : module.tests) take(module, test);
    }
  }

  std::span<const Change> everyChange() const {
    return changes ? std::span<const Change>(*changes) : std::span<const Change>();
  }

  const Change* findChange(const std::string& module, const std::string& test) const;  // or null
  OutcomeCounts countOutcomes() const;
  std::vector<std::string> testNames() const;  // of all modules, each once, in their order
  Grade gradeOf(const ModuleResult& module, const TestResult& test) const;
  std::vector<const Change*> goneTests() const;  // that only the baseline has
  Grade goneGrade() const { return changedFails ? Grade::failure : Grade::excused; }
  bool acceptable() const;  // status 0: no failure and no error
};

// "7 same, 2 broken (against monday)"
std::string comparison(const Results& results);

constexpr const char* changeName(Change::Kind kind) {
  constexpr const char* names[] = {"same", "fixed", "broken", "changed"};
  return names[kind];
}

// What stands behind the outcome in every format: the reason, the waivers used as
// "waived: length-query (10)", "49 of 50 passed" with --repeat; parts are joined by ", ".
std::string outcomeDetail(const TestResult& test);
std::string outcomeDetail(const Run& run);  // of one run

}  // namespace kestrel::run
