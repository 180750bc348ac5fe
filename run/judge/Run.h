// One run of a test, judged. Texts of a module stand here as the module gave them, any byte
// included; each writer makes them fit for its own format (common/FitText.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "run/judge/Outcome.h"

namespace kestrel::run {

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
  bool alike = false;          // the report is that of the first run of the test, and not kept
  std::string report, errors;  // standard output and standard error
  std::string trace;           // of each call; kept in a file of its own
};

}  // namespace kestrel::run
