#include "run/judge/Success.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "common/Numbers.h"
#include "run/judge/Judge.h"
#include "run/judge/Phrases.h"
#include "run/judge/Transcript.h"

namespace kestrel::run {

namespace {

bool metToken(const Evidence& evidence) {
  return std::ranges::any_of(evidence.report,
                             [](std::string_view line) { return saysPassed(line, "C_Login"); });
}

void judgeLogin(const Evidence& evidence, Run& run) {
  if (!metToken(evidence)) conclude(run, Outcome::nothingTested, "no token");
}

bool metKey(const Evidence& evidence) {
  return lastAfter(evidence.report, phrase::keyHandles).has_value();
}

void concludeNothing(const Evidence& evidence, Run& run) {
  conclude(run, Outcome::nothingTested,
           metKey(evidence)     ? std::string(noMechanism)
           : metToken(evidence) ? "no key"
                                : "no token");
}

void judgeSigning(const Evidence& evidence, Run& run) {
  if (run.verified + run.unchecked == 0) return concludeNothing(evidence, run);
  if (run.verified == 0) run.outcome = Outcome::nothingTested;
  run.reason = fmt::format("{} verified", run.verified);
  if (run.unchecked > 0) run.reason += fmt::format(", {} not checked", run.unchecked);
}

// Of a multi-part decryption the report has the last part alone, which may be empty.
void judgeDecryption(const Evidence& evidence, Run& run) {
  const bool whole = evidence.test.success == Success::plaintexts;
  const std::vector<std::string> dumps =
      dumpsUnder(whole ? phrase::messageDump : phrase::lastPartDump, evidence.report);
  const auto wrong = [whole](const std::string& dump) {
    return whole ? dump != phrase::message : !phrase::message.ends_with(dump);
  };
  if (dumps.empty()) return concludeNothing(evidence, run);
  if (std::ranges::any_of(dumps, wrong)) return conclude(run, Outcome::failed, "wrong plaintext");
  run.reason = fmt::format("{} decrypted", dumps.size());
}

// Each token has its C_OpenSession and then these steps twice, there and back. The first step that
// fails ends the test with status 0 and a line that has its value and no name: it is the step
// behind those that passed.
void judgePinChange(const Evidence& evidence, Run& run) {
  constexpr std::array steps{"C_SetPIN", "C_Login", "C_Logout"};
  std::size_t tokens = 0, passedSteps = 0;
  for (const ReportedCall& call : run.calls) {
    if (call.name == "C_OpenSession") {
      ++tokens;
      passedSteps = 0;
    } else if (call.name != "C_Finalize") {
      ++passedSteps;
    }
  }
  if (tokens == 0) return conclude(run, Outcome::nothingTested, "no token");
  const auto finished =
      static_cast<std::size_t>(std::ranges::count(evidence.report, phrase::secondLogout));
  const std::optional<std::string_view> value = lastAfter(evidence.report, phrase::pinChangeFailed);
  if (!value || finished >= tokens) return;  // or a text of the module's that looks like it
  failIn(run, steps[passedSteps % steps.size()],
         static_cast<std::uint32_t>(readNumber<std::uint64_t>(*value).value_or(0)));
  run.calls.push_back({run.call, false, *run.value, run.valueName});
  run.reason = fmt::format("PIN change failed, {} {}", run.call, run.valueName);
}

void judgeCertificates(const Evidence& evidence, Run& run) {
  const bool opened = std::ranges::any_of(
      evidence.report, [](std::string_view line) { return saysPassed(line, "C_OpenSession"); });
  if (!opened) conclude(run, Outcome::nothingTested, "no token");
}

void judgePinFlags(const Evidence& evidence, Run& run) {
  if (!lastAfter(evidence.report, phrase::pinFlags)) {
    conclude(run, Outcome::nothingTested, "no reader");
  }
}

void judgeTest(const Evidence& evidence, Run& run) {
  switch (evidence.test.success) {
    case Success::end:
      return;
    case Success::login:
      return judgeLogin(evidence, run);
    case Success::signatures:
      return judgeSigning(evidence, run);
    case Success::plaintexts:
    case Success::lastParts:
      return judgeDecryption(evidence, run);
    case Success::pinChange:
      return judgePinChange(evidence, run);
    case Success::pinFlags:
      return judgePinFlags(evidence, run);
    case Success::certificates:
      return judgeCertificates(evidence, run);
  }
}

}  // namespace

void judgeSuccess(const Evidence& evidence, Run& run) {
  if (!isComplete(evidence.report)) {
    return conclude(run, Outcome::failed,
                    fmt::format("{} in the middle of its report", unexplained));
  }
  run.outcome = Outcome::passed;
  judgeTest(evidence, run);
}

}  // namespace kestrel::run
