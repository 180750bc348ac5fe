#include "probe/Probe.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/prctl.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>

#include "probe/JsonLines.h"
#include "probe/Plan.h"
#include "probe/ProbeDisplay.h"
#include "probe/Start.h"
#include "probe/Supervisor.h"
#include "probe/Values.h"
#include "run/process/Interrupt.h"
#include "run/process/OperatorTerminal.h"
#include "run/process/Pins.h"

namespace kestrel::probe {

namespace {

namespace fs = std::filesystem;

fs::path realModule(const std::string& path) {
  std::error_code error;
  fs::path real = fs::canonical(path, error);
  if (error) throw std::runtime_error(fmt::format("{}: {}", path, error.message()));
  return real;
}

std::string timeNow() {
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time(nullptr)));
}

// For a shell.
std::string quoted(const std::string& text) {
  constexpr std::string_view plain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_./:=+-,@%";
  if (!text.empty() && text.find_first_not_of(plain) == text.npos) return text;
  std::string result = "'";
  for (const char character : text)
    result += character == '\'' ? "'\\''" : std::string(1, character);
  return result + "'";
}

// What tries a check again, but for the check's name.
std::string commandOf(const Options& options) {
  std::string command = "kestrel-probe";
  if (options.token) command += fmt::format(" --token {}", quoted(*options.token));
  if (!options.pinFile.empty()) command += fmt::format(" --pin-file {}", quoted(options.pinFile));
  if (options.initArguments)
    command += fmt::format(" --init-args {}", quoted(*options.initArguments));
  if (options.leaveObjects) command += " --leave-objects";
  if (options.undefined) command += " --undefined";
  return fmt::format("{} {}", command, quoted(options.module));
}

class Run {
 public:
  explicit Run(const Options& options)
      : options_(options),
        board_(makeBoard()),
        display_(options.json == "-" ? stderr : stdout, options.verbose, commandOf(options)),
        supervisor_(
            board_, interrupt_, options.timeout,
            {[this](const Check& check, double seconds) { display_.running(check, seconds); },
             [this](const Check& check, const Finding& finding) { take(check, finding); }}) {
    if (!options.json.empty()) json_.emplace(options.json);
    target_.module = realModule(options.module);
    target_.initArguments = options.initArguments;
    if (options.token) wanted_.emplace(*options.token);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    if (!options.pinFile.empty()) pins_.readFile(options.pinFile);
    pins_.takeFromEnvironment();
    terminal_ = OperatorTerminal::open();
    pins_.askOn(terminal_.get(), interrupt_);
  }

  int run() {
    const auto start = std::chrono::steady_clock::now();
    const std::string started = timeNow();
    holding_ = true;
    supervisor_.run(target_, planToken(board_, wanted_), {});
    if (board_.facts.known) target_.token = board_.facts;
    target_.token.mechanismCount = std::min(target_.token.mechanismCount, maxMechanisms);
    target_.token.label.back() = '\0';
    const std::string label = target_.token.label.data();
    if (json_) json_->begin(target_.module, label, started);
    const Plan plan = makePlan(options_, target_.token.known ? &target_.token : nullptr);
    display_.begin(label, plan.size());
    release();
    if (target_.token.known) runOn(plan);
    for (const auto& [check, finding] : watchedFunctions(board_)) take(check, finding);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    interrupted_ = interrupted_ || supervisor_.interrupted();
    display_.finish(interrupted_, seconds);
    if (json_) {
      json_->end(totals_, interrupted_);
      json_->finish();
    }
    return status();
  }

 private:
  void runOn(const Plan& plan) {
    takePin();
    supervisor_.run(target_, planLogin(board_), {});
    if (board_.login == LoginState::refused) return;
    supervisor_.run(target_, plan, settle(plan, target_.token));
    interrupted_ = supervisor_.interrupted();
    supervisor_.tolerateInterrupts();
    if (!interrupted_ || options_.leaveObjects) {
      supervisor_.run(target_, planObjects(board_, options_.leaveObjects), {});
    }
  }

  // A token that one more wrong PIN would lock is not to be locked by a slip of the finger.
  void takePin() {
    const CK_FLAGS flags = target_.token.flags;
    if (!target_.token.wantsLogin()) return;
    if ((flags & CKF_USER_PIN_LOCKED) != 0) {
      target_.noPin = "the PIN is locked";
    } else if ((flags & CKF_USER_PIN_FINAL_TRY) != 0) {
      target_.noPin = "one try is left, and this is not the place for it";
    } else if ((flags & CKF_PROTECTED_AUTHENTICATION_PATH) != 0) {
      target_.noPin = "the token has a PIN pad";
    } else {
      target_.pin = pins_.find(0, target_.token.label.data());
    }
  }

  void take(const Check& check, const Finding& finding) {
    if (holding_) {
      held_.emplace_back(check, finding);
      return;
    }
    const bool aside = check.path.starts_with("start/") || check.path.starts_with("watch/");
    // Without a token they are all that there is to say.
    const bool said = rowOf(finding.verdict).worthReading || !target_.token.known;
    if (aside && !options_.names.empty() && !said) return;
    ++totals_[static_cast<std::size_t>(finding.verdict)];
    if (json_) json_->add(check, finding);
    display_.fell(check, finding);
  }

  // What fell before the first line could be written.
  void release() {
    holding_ = false;
    for (const auto& [check, finding] : std::exchange(held_, {})) take(check, finding);
  }

  int status() const {
    if (interrupted_ || !target_.token.known || !display_.complete()) return 1;
    for (const VerdictRow& row : verdictRows) {
      if (row.fault && totals_[static_cast<std::size_t>(row.verdict)] != 0) return 1;
    }
    return 0;
  }

  const Options& options_;
  Board& board_;
  Interrupt interrupt_;
  std::unique_ptr<OperatorTerminal> terminal_;
  Pins pins_;
  Target target_;
  std::optional<TokenPattern> wanted_;
  std::optional<JsonLines> json_;
  Display display_;
  Supervisor supervisor_;
  Totals totals_{};
  bool holding_ = false, interrupted_ = false;
  std::vector<std::pair<Check, Finding>> held_;
};

int listChecks(const Options& options) {
  const Plan plan = makePlan(options, nullptr);
  const Coverage coverage = coverageOf(plan);
  if (!options.json.empty()) {
    JsonLines json(options.json);
    json.beginList();
    for (const Check& check : plan) json.list(check);
    json.endList(plan.size(), coverage.functions, coverage.mechanisms);
    json.finish();
    if (options.json == "-") return 0;
  }
  std::map<std::string, std::size_t> areas;
  for (const Check& check : plan) {
    ++areas[check.path.substr(0, check.path.find('/'))];
    std::string expected;
    for (const CK_RV value : check.expected) expected.append(" ").append(valueText("CKR_", value));
    fmt::print("{} {}{}\n", check.path, expected,
               check.clause.empty() ? "" : fmt::format("  (PKCS #11, {})", check.clause));
  }
  fmt::print("\n{} checks", plan.size());
  for (const auto& [area, count] : areas) fmt::print(", {} of {}", count, area);
  fmt::print("; {} of {} functions, {} mechanisms\n", coverage.functions, functionCount2,
             coverage.mechanisms);
  return 0;
}

}  // namespace

int runProbe(const Options& options) {
  return options.list ? listChecks(options) : Run(options).run();
}

}  // namespace kestrel::probe
