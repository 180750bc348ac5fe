#include "run/judge/Login.h"

#include <fmt/format.h>

#include <algorithm>

#include "run/judge/Evidence.h"
#include "run/judge/Phrases.h"
#include "run/judge/Transcript.h"

namespace kestrel::run {

namespace {

// Whether the module changed the PIN and was not seen to change it back.
bool keepsTemporaryPin(std::string_view report) {
  bool keeps = false;
  for (const std::string_view line : linesOf(report)) {
    if (line.ends_with(phrase::pinChanged)) keeps = true;
    if (line.ends_with(phrase::pinIsBack)) keeps = false;
  }
  return keeps;
}

}  // namespace

std::size_t passedLogins(const Run& run) {
  return static_cast<std::size_t>(std::ranges::count_if(
      run.calls, [](const ReportedCall& call) { return call.passed && call.name == "C_Login"; }));
}

std::string barToLogin(const Test& test, const Run& run, bool accepted) {
  const bool login = run.call == "C_Login" || run.call == phrase::contextLogin;
  const bool pinChange = test.is(Test::changesPin);
  constexpr std::uint32_t pinIncorrect = 0xa0, pinLocked = 0xa4;
  if (run.value && *run.value >= pinIncorrect && *run.value <= pinLocked && (login || pinChange)) {
    return fmt::format("the PIN was refused in {}: {}", test.name, run.valueName);
  }
  if (pinChange && (run.outcome >= Outcome::crashed || run.cut || keepsTemporaryPin(run.report))) {
    return fmt::format("the PIN may be {} since {}", phrase::temporaryPin, test.name);
  }
  const bool died = run.outcome >= Outcome::crashed || run.reason.starts_with(unexplained);
  if (!accepted && ((login && !run.value) || (died && run.call.empty()))) {
    return fmt::format("whether the PIN was refused is not known: {} {}", test.name,
                       outcomeName(run.outcome));
  }
  return "";
}

}  // namespace kestrel::run
