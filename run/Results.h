// What the runs of kestrel came to: filled by the runs, read by every writer, kept in results.json.
// Texts of a module stand here as the module gave them, any byte included; each writer makes them
// fit for its own format (see Text.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// How one test ended. The order is from good to bad: of several runs of a test the worst is shown.
enum class Outcome {
  passed,
  notRun,         // why: in Run::reason
  nothingTested,  // kestrel passed, but no signature was verified, nothing decrypted, no token met
  failed,
  couldNotLoad,
  crashed,
  hung,
};

// One call as kestrel reported it. `name` is the report's, which in places is not the function's.
struct ReportedCall {
  std::string name;
  bool passed = true;
  std::uint32_t value = 0;           // the low half of the CK_RV; 0 for a call that passed
  std::string valueName = "CKR_OK";  // as the report has it
};

// How long one function took in a traced run, in microseconds.
struct FunctionTime {
  std::string name;
  std::size_t count = 0;
  std::uint64_t median = 0, largest = 0;
};

// One process of kestrel.
struct Run {
  Outcome outcome = Outcome::notRun;
  std::string reason;  // what a reader wants to know beside the outcome, in one line; may be empty
  std::string call;    // the call that it ended in; empty if in none
  std::optional<std::uint32_t> value;  // of that call
  std::string valueName;
  std::vector<ReportedCall> calls;
  std::size_t verified = 0, unchecked = 0;    // signatures
  std::map<std::string, std::size_t> waived;  // uses of each waiver of the shim
  std::vector<FunctionTime> times;            // of a traced run
  double seconds = 0;
  int exitStatus = 0;          // of kestrel; 128 + N for signal N; -1 when it was not run
  bool cut = false;            // the report was longer than what is kept
  std::string report, errors;  // standard output and standard error
  std::string trace;           // of each call; kept in a file of its own
};

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

// "passed", "not run", "nothing tested", "failed", "could not load", "crashed", "hung".
const char* outcomeName(Outcome outcome);
// "same", "fixed", "broken", "changed".
const char* changeName(Change::Kind kind);

// What stands behind the outcome in every format: the reason, the waivers used as
// "waived: length-query (10)", "49 of 50 passed" with --repeat; parts are joined by ", ".
std::string outcomeDetail(const TestResult& test);
std::string outcomeDetail(const Run& run);  // of one run
