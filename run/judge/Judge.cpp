#include "run/judge/Judge.h"

#include <fmt/format.h>
#include <string.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>

#include "harness/Notes.h"
#include "run/judge/Evidence.h"
#include "run/judge/Failure.h"
#include "run/judge/Phrases.h"
#include "run/judge/Success.h"
#include "run/judge/Transcript.h"

namespace kestrel::run {

namespace {

void judgeExit(const Evidence& evidence, Run& run) {
  if (run.exitStatus == 0) return judgeSuccess(evidence, run);
  if (run.exitStatus == 1) return explainFailure(evidence, run);
  conclude(run, Outcome::failed, fmt::format("{} with status {}", unexplained, run.exitStatus));
}

std::string inCall(const Run& run) {
  if (!run.call.empty()) return fmt::format("in {}", run.call);
  return run.exitStatus == 128 + SIGKILL ? "in an unknown call"
                                         : "outside any call into the module";
}

// The test of waiting has no other end than this one: it has passed when both of its threads have
// come round and neither has got stuck with the other.
bool waitedLongEnough(const Evidence& evidence, Run& run) {
  const auto rounds = lastAfter(evidence.report, phrase::round);
  constexpr double longestSilence = 2;  // seconds
  if (!evidence.test.is(Test::endless) || !rounds || !lastAfter(evidence.report, phrase::poll) ||
      evidence.ended.silence > longestSilence) {
    return false;
  }
  conclude(run, Outcome::passed, fmt::format("{} rounds", *rounds));
  run.call.clear();
  return true;
}

void judgeSignal(const Evidence& evidence, Run& run, int signal) {
  if (evidence.test.is(Test::byOperator) && signal == SIGINT) {
    if (!waitedLongEnough(evidence, run)) {
      conclude(run, Outcome::notRun, "ended by the operator");
    }
    return;
  }
  const char* const name = sigabbrev_np(signal);
  conclude(run, Outcome::crashed,
           fmt::format("SIG{} {}", name == nullptr ? std::to_string(signal) : name, inCall(run)));
}

void judgeStopped(const Evidence& evidence, Run& run, double timeout) {
  switch (evidence.ended.by) {
    case Ended::By::lackOfPin:
      return conclude(run, Outcome::notRun, evidence.ended.reason);
    case Ended::By::interrupt:
      return conclude(run, Outcome::notRun, fmt::format("interrupted {}", inCall(run)));
    case Ended::By::reportLimit:
      return conclude(run, Outcome::failed,
                      fmt::format("more output than {} MiB {}", reportLimit >> 20, inCall(run)));
    default:
      if (waitedLongEnough(evidence, run)) return;
      conclude(run, Outcome::hung, fmt::format("{}, ended after {} s", inCall(run), timeout));
  }
}

// Of a call that did not fail, but was to.
void nameExpectation(const std::vector<std::string_view>& notes, Run& run) {
  if (run.call.empty()) return;
  if (const auto function = lastAfter(notes, functionNote)) run.call = *function;
  const auto expected = lastAfter(notes, expectedNote);
  if (expected && run.reason.empty()) {
    run.reason = fmt::format("{} {}, expected {}", run.call, run.valueName, *expected);
  }
}

}  // namespace

Run judge(const Test& test, Ended ended, double timeout, std::string_view notes) {
  Run run;
  const Evidence evidence{test, ended, linesOf(ended.report), linesOf(ended.errors)};
  run.calls = reportedCalls(evidence.report);
  const Signatures signatures = countSignatures(evidence.report);
  // The report lets pass what could not be checked.
  const auto passedUnchecked = std::min<std::size_t>(
      static_cast<std::size_t>(std::ranges::count(linesOf(notes), uncheckedNote)),
      signatures.verified);
  run.verified = signatures.verified - passedUnchecked;
  run.unchecked = signatures.unchecked + passedUnchecked;
  run.seconds = ended.seconds;
  run.cut = ended.cut;
  const bool signaled = WIFSIGNALED(ended.status);
  const int signal = WTERMSIG(ended.status);
  run.exitStatus = signaled ? 128 + signal : WEXITSTATUS(ended.status);
  if (signaled) run.call = namedCall(evidence.errors);
  // One that came to its end all the same has the outcome of that end.
  const bool stopped = ended.by != Ended::By::itself;
  if (stopped && (run.exitStatus != 0 || !isComplete(evidence.report))) {
    judgeStopped(evidence, run, timeout);
  } else if (signaled) {
    judgeSignal(evidence, run, signal);
  } else {
    judgeExit(evidence, run);
  }
  if (run.outcome == Outcome::failed) nameExpectation(linesOf(notes), run);
  run.report = std::move(ended.report);
  run.errors = std::move(ended.errors);
  return run;
}

std::string barToModule(const Run& run) {
  if (run.outcome == Outcome::couldNotLoad) return "could not be loaded";
  const bool gone = run.outcome == Outcome::hung || run.outcome == Outcome::crashed;
  if (!gone || run.call != "C_Initialize") return "";
  return fmt::format("{} in C_Initialize", outcomeName(run.outcome));
}

}  // namespace kestrel::run
