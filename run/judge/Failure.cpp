#include "run/judge/Failure.h"

#include <fmt/format.h>

#include <array>

#include "common/Numbers.h"
#include "run/judge/Transcript.h"

namespace kestrel::run {

namespace {

constexpr std::string_view separator = "---------------------------------------";
constexpr char wrongSignature[] = "wrong signature";

std::string_view lastLine(const std::vector<std::string_view>& lines) {
  return lines.empty() ? std::string_view() : lines.back();
}

bool couldNotLoad(const Evidence& evidence, Run& run) {
  if (lastLine(evidence.report) != separator) return false;
  for (const char* start : {"Failed to open PKCS#11 library ./libnorvalepk11.so: ",
                            "Failed to retrieve 'C_GetFunctionList': "}) {
    if (const auto words = lastAfter(evidence.errors, start)) {
      conclude(run, Outcome::couldNotLoad, std::string(*words));
      return true;
    }
  }
  return false;
}

// Where the shim stands in the module's place, what it says for it.
bool notLoadedByShim(const Evidence& evidence, const ReportedCall& failure, Run& run) {
  const auto words = lastAfter(evidence.errors, "kestrel-shim: cannot load ");
  if (failure.name != "C_Initialize" || !words) return false;
  conclude(run, Outcome::couldNotLoad, std::string(*words));
  return true;
}

// What kestrel itself says on standard error comes last there, and is about the end.
bool endedInWords(const Evidence& evidence, Run& run) {
  std::string_view words = lastLine(evidence.errors);
  constexpr std::string_view own = "kestrel: ", exception = "an exception left the module's ";
  if (!words.starts_with(own)) return false;
  words.remove_prefix(own.size());
  run.call = namedCall(evidence.errors);
  if (words.starts_with(exception)) {
    words.remove_prefix(exception.size());
    conclude(run, Outcome::failed, fmt::format("an exception left {}", words));
  } else if (words.starts_with("the module's ") && words.ends_with("() ended the process")) {
    conclude(run, Outcome::failed, fmt::format("{} ended the process", run.call));
  } else {
    conclude(run, Outcome::failed, std::string(words));
  }
  return true;
}

bool endedByLine(const Evidence& evidence, Run& run) {
  struct Row {
    std::string_view line;
    const char* reason;
  };
  constexpr std::array rows{
      Row{"No Card Readers detected.", "no reader"},
      Row{"*********** TOKEN NOT PRESENT ************", "no token"},
      Row{"       SIGNATURE VERIFICATION FAILED", wrongSignature},
  };
  // The longest of these ends has three lines behind it.
  const std::size_t count = evidence.report.size();
  for (std::size_t i = count; i-- > 0 && i + 4 >= count;) {
    for (const Row& row : rows) {
      if (!evidence.report[i].ends_with(row.line)) continue;
      conclude(run, Outcome::failed, row.reason);
      return true;
    }
  }
  return false;
}

bool endedBySlotEvents(const Evidence& evidence, Run& run) {
  if (!evidence.test.is(Test::endless)) return false;
  for (const std::string_view call : {"C_WaitForSlotEvent", "C_GetSlotInfo"}) {
    const auto text = lastAfter({lastLine(evidence.report)}, fmt::format("{} == ", call));
    const auto value = readNumber<std::uint64_t>(text.value_or(""));
    if (!value) continue;
    failIn(run, std::string(call), static_cast<std::uint32_t>(*value));
    return true;
  }
  return false;
}

void nameMechanism(const Evidence& evidence, Run& run) {
  const Signatures signatures = countSignatures(evidence.report);
  run.reason = wrongSignature;
  if (!signatures.last.empty()) run.reason += fmt::format(", {}", signatures.last);
}

}  // namespace

// The end of the report comes before what stands above it, where a text of the module's may be.
void explainFailure(const Evidence& evidence, Run& run) {
  if (endedInWords(evidence, run)) return;
  std::optional<ReportedCall> failure = lastFailure({lastLine(evidence.report)});
  if (failure && notLoadedByShim(evidence, *failure, run)) return;
  if (!failure && (couldNotLoad(evidence, run) || endedBySlotEvents(evidence, run))) return;
  if (!failure && endedByLine(evidence, run)) {
    if (run.reason == wrongSignature) nameMechanism(evidence, run);
    if (lastAfter(evidence.errors, "kestrel-shim: no token matches")) run.reason = "no such token";
    return;
  }
  if (!failure) failure = lastFailure(evidence.report);  // the module wrote more, at its exit
  if (!failure) return conclude(run, Outcome::failed, fmt::format("{} with status 1", unexplained));
  failIn(run, failure->name, failure->value);
  if (run.call == "verifySig") nameMechanism(evidence, run);
  if (lastAfter(evidence.errors, "C_GetFunctionList failed")) {
    run.reason = fmt::format("C_GetFunctionList failed, then {}", run.call);
  }
}

}  // namespace kestrel::run
