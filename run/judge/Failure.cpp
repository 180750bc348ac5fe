#include "run/judge/Failure.h"

#include <fmt/format.h>

#include <array>

#include "common/Numbers.h"
#include "harness/ModulePath.h"
#include "run/judge/Phrases.h"
#include "run/judge/Transcript.h"

namespace kestrel::run {

namespace {

constexpr char wrongSignature[] = "wrong signature";

std::string_view lastLine(const std::vector<std::string_view>& lines) {
  return lines.empty() ? std::string_view() : lines.back();
}

bool couldNotLoad(const Evidence& evidence, Run& run) {
  if (lastLine(evidence.report) != phrase::separator) return false;
  for (const std::string& start : {fmt::format("{}{}: ", phrase::cannotOpen, modulePath),
                                   std::string(phrase::cannotFindList)}) {
    if (const auto words = lastAfter(evidence.errors, start)) {
      conclude(run, Outcome::couldNotLoad, std::string(*words));
      return true;
    }
  }
  return false;
}

// Where the shim stands in the module's place, what it says for it.
bool notLoadedByShim(const Evidence& evidence, const ReportedCall& failure, Run& run) {
  const auto words = lastAfter(evidence.errors, phrase::shimCannotLoad);
  if (failure.name != "C_Initialize" || !words) return false;
  conclude(run, Outcome::couldNotLoad, std::string(*words));
  return true;
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

// What kestrel itself says on standard error comes last there, and is about the end.
bool endedInWords(const Evidence& evidence, Run& run) {
  std::string_view words = lastLine(evidence.errors);
  if (!takePrefix(words, phrase::kestrelSays)) return false;
  run.call = namedCall(evidence.errors);
  if (std::string_view call = words;
      takePrefix(call, phrase::exceptionLeft) && takePrefix(call, phrase::ofModule)) {
    conclude(run, Outcome::failed, fmt::format("an exception left {}", call));
  } else if (words.starts_with(phrase::ofModule) && words.ends_with(phrase::endedProcess)) {
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
      Row{phrase::noReader, "no reader"},
      Row{phrase::noToken, "no token"},
      Row{phrase::wrongSignature, wrongSignature},
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
  for (const std::string_view end : phrase::loopEnds) {
    const auto text = lastAfter({lastLine(evidence.report)}, end);
    const auto value = readNumber<std::uint64_t>(text.value_or(""));
    if (!value) continue;
    failIn(run, std::string(end.substr(0, end.find(' '))), static_cast<std::uint32_t>(*value));
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
    if (lastAfter(evidence.errors, phrase::shimFindsNoToken)) run.reason = "no such token";
    return;
  }
  if (!failure) failure = lastFailure(evidence.report);  // the module wrote more, at its exit
  if (!failure) return conclude(run, Outcome::failed, fmt::format("{} with status 1", unexplained));
  failIn(run, failure->name, failure->value);
  if (run.call == phrase::verification) nameMechanism(evidence, run);
  if (lastAfter(evidence.errors, phrase::noFunctionList)) {
    run.reason = fmt::format("C_GetFunctionList failed, then {}", run.call);
  }
}

}  // namespace kestrel::run
