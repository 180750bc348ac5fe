#include "probe/Worker.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "probe/Bench.h"
#include "probe/Companion.h"
#include "probe/Faults.h"
#include "probe/Keys.h"
#include "probe/ProbeModule.h"
#include "probe/Record.h"

namespace kestrel::probe {

namespace {

// A process of its own: nothing that it does to its streams is seen, and it does not outlive the
// one that started it. A core file of it would hold the PIN.
void settleProcess() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  setsid();
  sigset_t nothingBlocked;
  sigemptyset(&nothingBlocked);
  sigprocmask(SIG_SETMASK, &nothingBlocked, nullptr);
  const rlimit none{};
  setrlimit(RLIMIT_CORE, &none);
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, stream);
}

class Worker final : private Host {
 public:
  Worker(Board& board, const Target& target, int pipe)
      : target_(target),
        board_(board),
        pipe_(pipe),
        caller_(board),
        module_(board, target, caller_),
        keys_(caller_.memory, target.token) {
    keys_.useLogin(board, target.pin);
  }

  int run(const Plan& plan, std::span<const std::optional<Finding>> settled, std::uint32_t first) {
    const auto needsCompanion = [&](std::uint32_t i) { return !settled[i] && plan[i].elsewhere; };
    for (std::uint32_t i = first; i < plan.size() && !companion_; ++i) {
      if (needsCompanion(i)) startCompanion(plan);
    }
    for (std::uint32_t i = first; i < plan.size(); ++i) {
      if (settled[i]) continue;
      if (!module_.canReach(plan[i].stage)) return workerSpent;
      board_.beginCheck(plan[i].path);
      board_.settingUp = true;
      const Ran ran = runCheck(plan[i], i, nullptr);
      send(ran.record);
      if (!ran.goesOn) return workerSpent;
    }
    return workerDone;
  }

  void leave() {
    leaveModule();
    companion_.reset();
  }

 private:
  void leaveModule() {
    try {
      module_.leave();
    } catch (const CallEnded&) {
    }
  }

  Login logIn(CK_SESSION_HANDLE session, CK_USER_TYPE type) override {
    if (target_.pin == nullptr) return {{}, target_.noPin};
    if (board_.login != LoginState::proven) return {{}, "the PIN was not proven to be right"};
    const CK_RV value = module_.givePin(session, type);
    if (value == CKR_PIN_INCORRECT || value == CKR_PIN_LOCKED) board_.login = LoginState::refused;
    return {value, ""};
  }

  CK_RV initialize() override { return module_.callInitialize(); }

  Finding askCompanion(const Check& check, View message) override {
    const auto number = static_cast<std::uint32_t>(&check - plan_->data());
    const Record record = companion_->ask(number, message);
    Finding finding = record.finding();
    if (record.kind == Record::Kind::finding) return finding;
    return {Verdict::notApplicable, "", {}, reasonOf(finding)};
  }

  void startCompanion(const Plan& plan) {
    plan_ = &plan;
    companion_.emplace([this, &plan](const Companion::Request& request) {
      const Ran ran = runCheck(plan[request.check], request.check, &request);
      leaveModule();
      return ran.record;
    });
  }

  void send(const Record& record) const {
    if (write(pipe_, &record, sizeof record) != sizeof record) _exit(1);
  }

  struct Ran {
    Record record;
    bool goesOn = false;  // the process can, with another check
  };

  // Without a request the check itself, else what it wants done in a second process: this one.
  Ran runCheck(const Check& check, std::uint32_t number, const Companion::Request* request) {
    const MemoryScope scope(caller_.memory);
    try {
      Bench bench(caller_, target_.token, keys_, check, *this);
      prepare(request == nullptr ? check.stage : Stage::session, bench);
      if (request != nullptr) bench.message = request->text();
      const Finding finding = bench.run(request == nullptr ? check.run : check.elsewhere);
      const bool spoils = check.spoils || check.elsewhere;
      const bool sound = finding.verdict != Verdict::crashed && finding.verdict != Verdict::wrong;
      if (sound && !spoils) close(bench);
      return {Record::of(number, finding), sound && !spoils};
    } catch (const SetUpFailed& failed) {
      return {Record::of(number, failed.finding, Record::Kind::setUpFailed)};
    } catch (const CallEnded& ended) {
      const Finding finding{
          Verdict::deviates, nameOf(ended.function), {}, "did not end as a call does"};
      return {Record::of(number, finding, Record::Kind::setUpFailed)};
    }
  }

  void prepare(Stage stage, Bench& bench) {
    module_.reach(stage);
    if (stage >= Stage::session) {
      keys_.useSession(module_.session());
      bench.session = module_.openSession();
    }
    board_.settingUp = false;
  }

  // Whatever the check left open in it. The check has its verdict.
  void close(const Bench& bench) {
    try {
      for (const CK_SESSION_HANDLE session : bench.otherSessions()) p11::C_CloseSession(session);
      if (bench.session != CK_INVALID_HANDLE) p11::C_CloseSession(bench.session);
    } catch (const CallEnded&) {
    }
  }

  const Target& target_;
  Board& board_;
  int pipe_;
  Caller caller_;
  Module module_;
  Keys keys_;
  const Plan* plan_ = nullptr;
  std::optional<Companion> companion_;
};

}  // namespace

void work(Board& board, const Target& target, const Plan& plan,
          std::span<const std::optional<Finding>> settled, std::uint32_t first, int pipe) {
  settleProcess();
  board.beginProcess();
  noteFaultsOn(board);
  Worker worker(board, target, pipe);
  const int status = worker.run(plan, settled, first);
  worker.leave();
  // Without the module's destructors: they are not what is checked.
  _exit(status);
}

}  // namespace kestrel::probe
