#include "probe/Supervisor.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <system_error>

#include "common/Descriptor.h"
#include "probe/Record.h"
#include "run/process/Orphans.h"

namespace kestrel::probe {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds progressPeriod{100};

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

struct Process {
  pid_t id = -1;
  Descriptor ended, records;
};

// Forks. The child does `run` with the writing end of the pipe, and does not return.
template <typename Run>
Process start(Run run) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail("pipe");
  Process process;
  process.records = Descriptor(ends[0]);
  const Descriptor writing(ends[1]);
  process.id = fork();
  if (process.id < 0) fail("fork");
  if (process.id == 0) run(writing.get());
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  process.ended = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, process.id, 0)));
  if (process.ended.get() < 0) fail("pidfd_open");
  return process;
}

// What touching memory that was not given comes to; null for a fault of another kind.
const char* misuse(Memory::Place place, bool writes) {
  switch (place) {
    case Memory::Place::behind:
      return writes ? "wrote behind the end of the room that it was given"
                    : "read behind the end of what it was given";
    case Memory::Place::before:
      return writes ? "wrote before the room that it was given" : "read before what it was given";
    case Memory::Place::readOnly:
      return "wrote into data that it may only read";
    case Memory::Place::elsewhere:
      return nullptr;
  }
  return nullptr;
}

// Which stages are lost with one that cannot be reached.
bool needs(Stage stage, Stage lost) {
  if (stage == Stage::finalized || lost == Stage::finalized) {
    return lost <= Stage::initialized && stage == Stage::finalized;
  }
  return stage >= lost;
}

}  // namespace

class Supervisor::Run {
 public:
  Run(Supervisor& owner, const Target& target, const Plan& plan,
      std::vector<std::optional<Finding>> settled)
      : owner_(owner),
        board_(owner.board_),
        target_(target),
        plan_(plan),
        settled_(std::move(settled)) {
    settled_.resize(plan.size());
  }

  std::vector<Finding> run() {
    takeSettled();
    while (findings_.size() < plan_.size() && !owner_.interrupted()) runWorker();
    return std::move(findings_);
  }

 private:
  std::uint32_t next() const { return static_cast<std::uint32_t>(findings_.size()); }

  void take(const Finding& finding) {
    const Check& check = plan_[findings_.size()];
    findings_.push_back(finding);
    if (owner_.audience_.fell) owner_.audience_.fell(check, finding);
  }

  void takeSettled() {
    while (findings_.size() < plan_.size() && settled_[findings_.size()]) {
      take(*settled_[findings_.size()]);
    }
  }

  void runWorker() {
    process_ = start([this](int pipe) { work(board_, target_, plan_, settled_, next(), pipe); });
    begin();
    int status = 0;
    bool hung = false;
    while (waitpid(process_.id, &status, WNOHANG) == 0) {
      await();
      if (owner_.interrupted()) kill(process_.id, SIGKILL);
      hung = hung || lookAtClock();
    }
    const bool late = takeRecords();  // what came after the last look
    process_ = {};
    killChildren({});
    // A check that was done in time is no reason to blame the next one, which was hardly begun.
    if (!owner_.interrupted() && !(hung && late)) takeEnd(status, hung);
  }

  void begin() {
    began_ = Clock::now();
    deadline_ = began_ + std::chrono::duration_cast<Clock::duration>(
                             std::chrono::duration<double>(owner_.timeout_));
  }

  void await() {
    const auto left = std::chrono::ceil<milliseconds>(deadline_ - Clock::now());
    const milliseconds time = std::clamp(left, milliseconds(0), progressPeriod);
    pollfd events[] = {{process_.ended.get(), POLLIN, 0},
                       {process_.records.get(), POLLIN, 0},
                       {owner_.interrupt_.descriptor(), POLLIN, 0}};
    poll(events, std::size(events), static_cast<int>(time.count()));
    takeRecords();
    if (owner_.audience_.running && next() < plan_.size()) {
      owner_.audience_.running(plan_[next()], elapsed());
    }
  }

  double elapsed() const { return std::chrono::duration<double>(Clock::now() - began_).count(); }

  // Whether a process that has lost its time was ended.
  bool lookAtClock() {
    if (Clock::now() < deadline_) return false;
    kill(process_.id, SIGKILL);
    deadline_ = Clock::time_point::max();
    return true;
  }

  // All that is there. False when none was.
  bool takeRecords() {
    Record record;
    bool any = false;
    while (process_.records.get() >= 0 && next() < plan_.size()) {
      const ssize_t count = read(process_.records.get(), &record, sizeof record);
      if (count != sizeof record || record.check != next()) break;
      any = true;
      begin();
      takeRecord(record);
    }
    return any;
  }

  void takeRecord(const Record& record) {
    if (record.kind == Record::Kind::setUpFailed) return takeSetUpFailure(record.finding());
    failedSetUps_ = 0;
    take(record.finding());
    takeSettled();
  }

  // A process may fail once by chance; the second time nothing that needs this stage can be run.
  void takeSetUpFailure(const Finding& finding) {
    const Check& check = plan_[next()];
    const bool itself = check.path.starts_with("start/");
    if (!itself && ++failedSetUps_ < 2 && board_.login != LoginState::refused &&
        board_.login != LoginState::underway) {
      return;
    }
    const Finding lost{
        Verdict::notApplicable, "", {}, fmt::format("not reached: {}", reasonOf(finding))};
    for (std::size_t i = next(); i < plan_.size(); ++i) {
      if (!settled_[i] && needs(plan_[i].stage, check.stage)) settled_[i] = lost;
    }
    take(itself ? finding : lost);
    takeSettled();
    failedSetUps_ = 0;
  }

  void takeEnd(int status, bool hung) {
    if (next() == plan_.size()) return;
    const bool byItself = WIFEXITED(status) &&
                          (WEXITSTATUS(status) == workerDone || WEXITSTATUS(status) == workerSpent);
    const CallNumber call = board_.callUnderWay();
    if (byItself && !hung && call == noCall) return;
    const Finding finding = hung ? hangOf(call) : crashOf(status, call);
    if (board_.settingUp) return takeSetUpFailure(finding);
    take(finding);
    takeSettled();
  }

  Finding hangOf(CallNumber call) const {
    const char* const name = callName(call);
    return {Verdict::hung,
            name == nullptr ? "" : name,
            {},
            fmt::format("ended after {} s", owner_.timeout_),
            elapsed()};
  }

  Finding crashOf(int status, CallNumber call) const {
    const bool faulted = board_.faulted;
    const char* const name = callName(faulted ? board_.faultCall : call);
    Finding finding{Verdict::crashed, name == nullptr ? "" : name, {}, ""};
    finding.seconds = elapsed();
    if (WIFEXITED(status)) {
      finding.detail = fmt::format("ended the process with exit status {}", WEXITSTATUS(status));
      return finding;
    }
    const char* const touched = faulted ? misuse(board_.faultPlace, board_.faultWrites) : nullptr;
    if (touched != nullptr && name != nullptr) finding.verdict = Verdict::wrong;
    const char* const signal = sigabbrev_np(WTERMSIG(status));
    finding.detail = touched != nullptr  ? touched
                     : signal != nullptr ? fmt::format("SIG{}", signal)
                                         : fmt::format("signal {}", WTERMSIG(status));
    if (name == nullptr) finding.detail += " outside any call into the module";
    return finding;
  }

  Supervisor& owner_;
  Board& board_;
  const Target& target_;
  const Plan& plan_;
  std::vector<std::optional<Finding>> settled_;
  std::vector<Finding> findings_;
  Process process_;
  Clock::time_point began_, deadline_;
  unsigned failedSetUps_ = 0;
};

std::vector<Finding> Supervisor::run(const Target& target, const Plan& plan,
                                     std::vector<std::optional<Finding>> settled) {
  return Run(*this, target, plan, std::move(settled)).run();
}

}  // namespace kestrel::probe
