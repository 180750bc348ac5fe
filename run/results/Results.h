// What the runs of kestrel came to: filled by the runs, read by every writer, kept in results.json.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "run/judge/Run.h"

// One test on one module: as many runs as --repeat asks for, at least one.
struct TestResult {
  std::string name;
  std::vector<Run> runs;

  const Run& shown() const;  // the worst run, the first of these
  std::size_t passedRuns() const;
  double seconds() const;  // of all runs
};

struct ModuleResult {
  std::string name;  // tells it from the other modules of the run
  std::string path;  // its real path
  std::vector<TestResult> tests;

  const TestResult* find(const std::string& test) const;  // null if there is none
};

// A test against the same one of an earlier run.
struct Change {
  enum Kind { same, fixed, broken, changed } kind = same;
  std::string module, test;
  std::string difference;  // of outcome and report, as a unified diff; empty for `same`
};

struct Results {
  std::string kestrelVersion;
  std::string started;  // ISO 8601, with the offset from UTC
  bool interrupted = false;
  std::vector<ModuleResult> modules;
  std::optional<std::vector<Change>> changes;  // of every test, when there is a baseline

  std::vector<std::string> testNames() const;  // of all modules, each once, in their order
  bool allPassed() const;
  bool acceptable() const;  // status 0: all passed or, with a baseline, nothing broken or changed
};

// "same", "fixed", "broken", "changed".
const char* changeName(Change::Kind kind);

// What stands behind the outcome in every format: the reason, the waivers used as
// "waived: length-query (10)", "49 of 50 passed" with --repeat; parts are joined by ", ".
std::string outcomeDetail(const TestResult& test);
std::string outcomeDetail(const Run& run);  // of one run
