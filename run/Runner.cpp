#include "run/Runner.h"

#include <fmt/format.h>
#include <sys/wait.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <set>

#include "common/FitText.h"
#include "common/Installation.h"
#include "harness/ModulePath.h"
#include "harness/Pkcs11.h"
#include "run/Look.h"
#include "run/ShimUse.h"
#include "run/judge/Judge.h"
#include "run/judge/Login.h"
#include "run/judge/Phrases.h"
#include "run/judge/Transcript.h"
#include "run/process/Folder.h"
#include "run/process/Supervise.h"
#include "run/results/Baseline.h"
#include "run/results/Known.h"

namespace kestrel::run {

namespace {

constexpr std::string_view lacksPin = "no PIN for slot position ";

Run notRun(std::string reason) {
  Run run;
  run.reason = std::move(reason);
  run.exitStatus = -1;
  return run;
}

std::string now() {
  const std::time_t time = std::time(nullptr);
  std::tm local{};
  localtime_r(&time, &local);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof text, "%FT%T%z", &local);
  const std::string_view all(text, length);
  // +0200 is no ISO 8601.
  return fmt::format("{}:{}", all.substr(0, length - 2), all.substr(length - 2));
}

// The loader's words are about the link that kestrel loads.
void nameAsTyped(const NamedModule& module, Run& run) {
  if (run.outcome != Outcome::couldNotLoad) return;
  for (std::size_t at; (at = run.reason.find(modulePath)) != run.reason.npos;) {
    run.reason.replace(at, std::string_view(modulePath).size(), module.typed);
  }
}

// Of a thousand runs nobody reads a thousand reports.
void dropIfAlike(const Run& first, Run& run) {
  if (run.outcome != first.outcome || comparable(run.report) != comparable(first.report)) return;
  run.alike = true;
  run.report.clear();
  run.errors.clear();
  run.trace.clear();
}

class Runner {
 public:
  Runner(const Options& options, PinSets& pins, Interrupt& interrupt, OperatorTerminal* terminal,
         Display& display)
      : options_(options),
        pins_(pins),
        interrupt_(interrupt),
        terminal_(terminal),
        display_(display) {
    if (!options.known.empty()) known_ = readKnown(options.known);
  }

  Results run();

 private:
  void runModule(const NamedModule& module);
  TestResult runTest(const Test& test);
  Run runOnce(const Test& test, unsigned number);
  std::string whyNot(const Test& test) const;
  void take(const TestResult& result);
  void nameTheChoice(Run& run) const;
  Ended startKestrel(const Test& test, SideFiles& files);
  void learn(const Test& test, const Run& run, const std::vector<std::uint64_t>& answered);
  PinAnswer answerPrompt(std::uint64_t position);
  void runBetween();

  const Options& options_;
  PinSets& pins_;
  Interrupt& interrupt_;
  OperatorTerminal* terminal_;
  Display& display_;
  Results results_;
  std::vector<KnownFailure> known_;
  // Where a PIN that opens the token was refused all the same, as security officer's for instance.
  std::map<const Test*, std::string> refusedTests_;
  // Of the module that is run:
  const NamedModule* module_ = nullptr;
  std::string deadEnd_;               // why nothing can be run on it any more
  std::string bar_;                   // why nothing logs in any more
  std::set<std::uint64_t> accepted_;  // slot positions whose PIN opened the token
};

Results Runner::run() {
  results_.started = now();
  results_.options = options_.shim.words();
  for (const NamedModule& module : options_.modules) runModule(module);
  results_.interrupted = interrupt_.count() > 0;
  return std::move(results_);
}

void Runner::runModule(const NamedModule& module) {
  module_ = &module;
  deadEnd_.clear();
  bar_.clear();
  accepted_.clear();
  results_.modules.push_back({module.name, module.path, {}});
  ModuleFacts& facts = results_.modules.back().facts;
  if (module.missing.empty() && interrupt_.count() == 0) facts = look(options_, module, interrupt_);
  for (const TokenFacts& token : facts.tokens) {
    if ((token.flags & CKF_USER_PIN_COUNT_LOW) == 0) continue;
    fmt::print(stderr, "kestrel-run: a wrong PIN was given to \"{}\" since the last right one\n",
               visible(token.label));
  }
  display_.beginModule(results_.modules.back(), options_.modules.size() > 1);
  for (const Test* test : options_.tests) {
    // What an interrupt leaves is listed, for those who count.
    take(interrupt_.count() > 0 ? TestResult{std::string(test->name), {notRun("interrupted")}}
                                : runTest(*test));
  }
}

void Runner::take(const TestResult& result) {
  std::vector<TestResult>& tests = results_.modules.back().tests;
  tests.push_back(result);
  markKnown(known_, module_->name, tests.back());
  display_.finished(tests.back());
}

TestResult Runner::runTest(const Test& test) {
  TestResult result{std::string(test.name), {}};
  for (unsigned number = 1; number <= options_.repeat; ++number) {
    result.runs.push_back(runOnce(test, number));
    if (number > 1) dropIfAlike(result.runs.front(), result.runs.back());
    if (interrupt_.count() > 0) break;
  }
  return result;
}

Run Runner::runOnce(const Test& test, unsigned number) {
  if (std::string reason = whyNot(test); !reason.empty()) return notRun(std::move(reason));
  if (!test.is(Test::byOperator)) display_.beginTest(test.name, number, options_.repeat);
  SideFiles files;
  Ended ended = startKestrel(test, files);
  const std::vector<std::uint64_t> answered = ended.answered;
  Run run = judge(test, std::move(ended), options_.timeout, files.notes);
  // What is done between two tests may well repair it.
  if (deadEnd_.empty() && options_.between.empty()) deadEnd_ = barToModule(run);
  if (test.is(Test::logsIn)) learn(test, run, answered);
  addFindings(std::move(files), run);
  nameAsTyped(*module_, run);
  if (run.reason == noMechanism && options_.shim.mechanisms) {
    run.reason += fmt::format(" among {}", *options_.shim.mechanisms);
  }
  nameTheChoice(run);
  for (std::string* text : {&run.report, &run.errors, &run.reason, &run.trace}) {
    pins_.removeFrom(*text);
  }
  if (results_.kestrelVersion.empty()) {
    const auto version = lastAfter(linesOf(run.report), phrase::version);
    if (version) results_.kestrelVersion = version->substr(0, version->find(' '));
  }
  if (!options_.between.empty() && interrupt_.count() == 0) runBetween();
  return run;
}

// Of several tokens one may be meant, and another be what a test fails at.
void Runner::nameTheChoice(Run& run) const {
  const std::size_t tokens = results_.modules.back().facts.tokens.size();
  const bool atToken = run.call == "C_OpenSession" || run.call == "C_Login";
  const bool noPin = run.outcome == Outcome::notRun && run.reason.starts_with(lacksPin);
  if (options_.shim.token || tokens < 2 || run.outcome == Outcome::passed || !(atToken || noPin)) {
    return;
  }
  if (run.reason.empty()) run.reason = fmt::format("{} {}", run.call, run.valueName);
  run.reason += fmt::format(", --token chooses one of the {} tokens", tokens);
}

std::string Runner::whyNot(const Test& test) const {
  if (!module_->missing.empty()) return module_->missing;
  if (!deadEnd_.empty()) return deadEnd_;
  if (test.is(Test::logsIn) && !bar_.empty()) return bar_;
  if (const auto refused = refusedTests_.find(&test); refused != refusedTests_.end()) {
    return refused->second;
  }
  if (test.is(Test::byOperator) && terminal_ == nullptr) return "wants an operator at a terminal";
  return "";
}

Ended Runner::startKestrel(const Test& test, SideFiles& files) {
  const TemporaryFolder folder;
  const bool between = options_.shim.isAsked();
  std::filesystem::create_symlink(between ? shimModule() : module_->path,
                                  folder.path() / modulePath);
  Supervision supervision{.interrupt = interrupt_, .timeout = options_.timeout};
  supervision.patient = test.is(Test::patient);
  supervision.endless = test.is(Test::endless);
  Command command{options_.kestrel, {}, folder.path()};
  if (test.is(Test::byOperator)) {
    supervision.lent = terminal_;
  } else {
    command.arguments.push_back("-d");  // the prompt for a PIN wants no terminal
    supervision.promptAtEnd = promptAtEnd;
    supervision.pin = [this](std::uint64_t position) { return answerPrompt(position); };
    if (display_.moves()) {
      supervision.progress = [this](std::string_view output, double seconds) {
        display_.progress(output, seconds);
      };
    }
  }
  if (options_.everyKey) command.arguments.push_back("-a");
  command.arguments.emplace_back(test.name);
  if (between) {
    command.environment = shimEnvironment(options_.shim, test, module_->path, folder.path());
  }
  command.environment.push_back(notesVariable(folder.path()));
  Ended ended = supervise(command, supervision);
  files = readSideFiles(folder.path());
  return ended;
}

void Runner::learn(const Test& test, const Run& run, const std::vector<std::uint64_t>& answered) {
  const bool acceptedNow = passedLogins(run) >= answered.size();
  if (acceptedNow) accepted_.insert(answered.begin(), answered.end());
  const bool accepted =
      !answered.empty() && std::ranges::all_of(answered, [this](std::uint64_t position) {
        return accepted_.contains(position);
      });
  bar_ = barToLogin(test, run, accepted);
  if (bar_.empty() || answered.empty()) return;
  const std::string where = fmt::format("{} on {}", bar_, module_->name);
  if (acceptedNow && !test.is(Test::changesPin)) {
    refusedTests_.emplace(&test, where);
  } else {
    pins_.of(module_->name).refuse(answered.back(), where);
  }
}

PinAnswer Runner::answerPrompt(std::uint64_t position) {
  display_.clear();
  const TokenFacts* const token = results_.modules.back().facts.tokenAt(position);
  if (token != nullptr && (token->flags & CKF_USER_PIN_FINAL_TRY) != 0 && !options_.lastTry) {
    return {nullptr, fmt::format("\"{}\" has one try left (see --last-try)", token->label)};
  }
  Pins& pins = pins_.of(module_->name);
  const Pin* const pin = pins.find(position, token == nullptr ? "" : token->label);
  if (interrupt_.count() > 0) return {nullptr, "interrupted"};
  if (pin == nullptr) return {nullptr, fmt::format("{}{}", lacksPin, position)};
  if (std::string refused = pins.refusedWhere(*pin); !refused.empty()) {
    return {nullptr, std::move(refused)};
  }
  return {pin, ""};
}

void Runner::runBetween() {
  const Ended ended = supervise({"/bin/sh", {"-c", options_.between}, {}},
                                {.interrupt = interrupt_, .timeout = options_.timeout});
  if (ended.by == Ended::By::interrupt || (ended.by == Ended::By::itself && ended.status == 0)) {
    return;
  }
  display_.clear();
  const std::string end = ended.by == Ended::By::timeLimit ? "did not end in time"
                          : WIFEXITED(ended.status)
                              ? fmt::format("exit status {}", WEXITSTATUS(ended.status))
                              : fmt::format("signal {}", WTERMSIG(ended.status));
  fmt::print(stderr, "kestrel-run: --between: {}\n{}", end, visible(ended.errors, Lines::kept));
}

}  // namespace

Results runTests(const Options& options, PinSets& pins, Interrupt& interrupt,
                 OperatorTerminal* terminal, Display& display) {
  return Runner(options, pins, interrupt, terminal, display).run();
}

}  // namespace kestrel::run
