#include "run/Outcome.h"

#include <fmt/format.h>
#include <string.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <csignal>

#include "harness/CkrName.h"
#include "run/Report.h"

namespace {

using Lines = std::vector<std::string_view>;

// What a run is judged by.
struct Evidence {
  const Test& test;
  const Ended& ended;
  Lines report, errors;
};

constexpr std::string_view separator = "---------------------------------------";
constexpr char unexplained[] = "the process ended";
constexpr char wrongSignature[] = "wrong signature";
constexpr std::string_view pinChangeFailed = "PIN change failed: return value: ";

void conclude(Run& run, Outcome outcome, std::string reason = "") {
  run.outcome = outcome;
  run.reason = std::move(reason);
}

void failIn(Run& run, std::string call, std::uint32_t value) {
  run.outcome = Outcome::failed;
  run.call = std::move(call);
  run.value = value;
  run.valueName = ckrName(value);
  if (run.valueName == "UNKNOWN") run.reason = fmt::format("{} {:#x}", run.call, value);
}

std::string_view lastLine(const Lines& lines) {
  return lines.empty() ? std::string_view() : lines.back();
}

// Status 1 with a line of the report or of standard error that is not a failed call's.

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

bool endedByModule(const Evidence& evidence, Run& run) {
  constexpr std::string_view exceptionStart = "kestrel: an exception left the module's ";
  const std::string_view last = lastLine(evidence.errors);
  const bool exception = last.starts_with(exceptionStart);
  if (!exception &&
      !(last.starts_with("kestrel: the module's ") && last.ends_with("() ended the process"))) {
    return false;
  }
  run.call = namedCall(evidence.errors);
  conclude(run, Outcome::failed,
           exception ? fmt::format("an exception left {}", last.substr(exceptionStart.size()))
                     : fmt::format("{} ended the process", run.call));
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
  if (evidence.test.name != "waitTest") return false;
  for (const std::string_view call : {"C_WaitForSlotEvent", "C_GetSlotInfo"}) {
    const auto text = lastAfter({lastLine(evidence.report)}, fmt::format("{} == ", call));
    std::uint64_t value = 0;
    if (!text || std::from_chars(text->data(), text->data() + text->size(), value).ptr !=
                     text->data() + text->size()) {
      continue;
    }
    failIn(run, std::string(call), static_cast<std::uint32_t>(value));
    return true;
  }
  return false;
}

void nameMechanism(const Evidence& evidence, Run& run) {
  const Signatures signatures = countSignatures(evidence.report);
  run.reason = wrongSignature;
  if (!signatures.last.empty()) run.reason += fmt::format(", {}", signatures.last);
}

// The end of the report comes before what stands above it, where a text of the module's may be.
void explainFailure(const Evidence& evidence, Run& run) {
  if (endedByModule(evidence, run)) return;
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

// What is left to the reader's eye when the exit status is 0.

bool metToken(const Evidence& evidence) {
  return std::ranges::any_of(
      evidence.report, [](std::string_view line) { return line.ends_with("C_Login() passed"); });
}

void judgeLogin(const Evidence& evidence, Run& run) {
  if (!metToken(evidence)) conclude(run, Outcome::nothingTested, "no token");
}

void concludeNothing(const Evidence& evidence, Run& run) {
  conclude(run, Outcome::nothingTested, metToken(evidence) ? "no key" : "no token");
}

void judgeSigning(const Evidence& evidence, Run& run) {
  if (run.verified + run.unchecked == 0) return concludeNothing(evidence, run);
  if (run.verified == 0) run.outcome = Outcome::nothingTested;
  run.reason = fmt::format("{} verified", run.verified);
  if (run.unchecked > 0) run.reason += fmt::format(", {} not checked", run.unchecked);
}

// Of a multi-part decryption the report has the last part alone, which may be empty.
void judgeDecryption(const Evidence& evidence, Run& run) {
  using namespace std::string_view_literals;
  constexpr std::string_view message = "this is a test string\0"sv;
  const bool whole = evidence.test.name == "decryptData";
  const std::vector<std::string> dumps =
      dumpsUnder(whole ? "Decrypted Message:" : "Decrypted data: ", evidence.report);
  const auto wrong = [whole, message](const std::string& dump) {
    return whole ? dump != message : !message.ends_with(dump);
  };
  if (dumps.empty()) return concludeNothing(evidence, run);
  if (std::ranges::any_of(dumps, wrong)) return conclude(run, Outcome::failed, "wrong plaintext");
  run.reason = fmt::format("{} decrypted", dumps.size());
}

// The steps behind C_OpenSession; the first that fails ends the test, with status 0.
void judgePinChange(const Evidence& evidence, Run& run) {
  constexpr std::array steps{"C_SetPIN", "C_Login", "C_Logout"};
  const auto isOpen = [](const ReportedCall& call) { return call.name == "C_OpenSession"; };
  const auto lastOpen = std::find_if(run.calls.rbegin(), run.calls.rend(), isOpen);
  if (lastOpen == run.calls.rend()) return conclude(run, Outcome::nothingTested, "no token");
  const std::optional<std::string_view> text = lastAfter(evidence.report, pinChangeFailed);
  const auto isDone = [](std::string_view line) {
    return line == "C_Logout() passed: (2nd logout)";
  };
  if (!text ||
      std::ranges::count_if(run.calls, isOpen) <= std::ranges::count_if(evidence.report, isDone)) {
    return;
  }
  std::uint64_t value = 0;
  std::from_chars(text->data(), text->data() + text->size(), value);
  const auto passed = std::count_if(run.calls.rbegin(), lastOpen, [](const ReportedCall& call) {
    return call.name != "C_Finalize";
  });
  failIn(run, steps[static_cast<std::size_t>(passed) % steps.size()],
         static_cast<std::uint32_t>(value));
  run.calls.push_back({run.call, false, *run.value, run.valueName});
  run.reason = fmt::format("PIN change failed, {} {}", run.call, run.valueName);
}

void judgeTokenInfo(const Evidence& evidence, Run& run) {
  if (!lastAfter(evidence.report, "Flags: ")) {
    conclude(run, Outcome::nothingTested, "no reader");
  }
}

struct Judgement {
  std::string_view test;
  void (*judge)(const Evidence&, Run&);
};

constexpr std::array judgements{
    Judgement{"login", judgeLogin},
    Judgement{"findObjectsTest", judgeLogin},
    Judgement{"signData", judgeSigning},
    Judgement{"signUpdate", judgeSigning},
    Judgement{"decryptData", judgeDecryption},
    Judgement{"decryptUpdate", judgeDecryption},
    Judgement{"changePinTest", judgePinChange},
    Judgement{"tokenInfoTest", judgeTokenInfo},
};

void judgeExit(const Evidence& evidence, Run& run) {
  if (run.exitStatus == 1) return explainFailure(evidence, run);
  if (run.exitStatus != 0) {
    return conclude(run, Outcome::failed,
                    fmt::format("{} with status {}", unexplained, run.exitStatus));
  }
  if (!isComplete(evidence.report)) {
    return conclude(run, Outcome::failed,
                    fmt::format("{} in the middle of its report", unexplained));
  }
  run.outcome = Outcome::passed;
  const auto* row = std::ranges::find(judgements, evidence.test.name, &Judgement::test);
  if (row != judgements.end()) row->judge(evidence, run);
}

std::string inCall(const Run& run) {
  if (!run.call.empty()) return fmt::format("in {}", run.call);
  return run.exitStatus == 128 + SIGKILL ? "in an unknown call"
                                         : "outside any call into the module";
}

// waitTest has no other end than this one: it has passed when both of its threads have come round.
bool waitedLongEnough(const Evidence& evidence, Run& run) {
  const auto rounds = lastAfter(evidence.report, "C_GetSlotInfo : ");
  if (evidence.test.name != "waitTest" || !rounds || !lastAfter(evidence.report, "Wait : ")) {
    return false;
  }
  conclude(run, Outcome::passed, fmt::format("{} rounds", *rounds));
  run.call.clear();
  return true;
}

void judgeSignal(const Evidence& evidence, Run& run, int signal) {
  if (evidence.test.byOperator && signal == SIGINT) {
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

// Where the module changed the PIN and was not seen to change it back.
bool keepsTemporaryPin(std::string_view report) {
  const std::size_t changed = report.rfind("C_SetPIN() passed: changed pin\n");
  return changed != report.npos &&
         report.find("C_Login() passed: logged in with original pin\n", changed) == report.npos;
}

}  // namespace

std::size_t passedLogins(const Run& run) {
  return static_cast<std::size_t>(std::ranges::count_if(
      run.calls, [](const ReportedCall& call) { return call.passed && call.name == "C_Login"; }));
}

Run judge(const Test& test, Ended ended, double timeout) {
  Run run;
  const Evidence evidence{test, ended, linesOf(ended.report), linesOf(ended.errors)};
  run.calls = reportedCalls(evidence.report);
  const Signatures signatures = countSignatures(evidence.report);
  run.verified = signatures.verified;
  run.unchecked = signatures.unchecked;
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
  run.report = std::move(ended.report);
  run.errors = std::move(ended.errors);
  return run;
}

std::string barToLogin(const Test& test, const Run& run, bool accepted) {
  const bool login = run.call == "C_Login" || run.call == "CKU_CONTEXT_SPECIFIC C_Login";
  const bool pinChange = test.name == "changePinTest";
  constexpr std::uint32_t pinIncorrect = 0xa0, pinLocked = 0xa4;
  if (run.value && *run.value >= pinIncorrect && *run.value <= pinLocked && (login || pinChange)) {
    return fmt::format("the PIN was refused in {}: {}", test.name, run.valueName);
  }
  if (pinChange && (run.outcome >= Outcome::crashed || run.cut || keepsTemporaryPin(run.report))) {
    return "the PIN may be 24682468 since changePinTest";
  }
  const bool died = run.outcome >= Outcome::crashed || run.reason.starts_with(unexplained);
  if (died && !accepted && (login || run.call.empty())) {
    return fmt::format("whether the PIN was refused is not known: {} {}", test.name,
                       outcomeName(run.outcome));
  }
  return "";
}
