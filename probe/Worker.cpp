#include "probe/Worker.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

#include "probe/Bench.h"
#include "probe/Faults.h"
#include "probe/Keys.h"
#include "probe/Module.h"
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

class Worker {
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
    for (std::uint32_t i = first; i < plan.size(); ++i) {
      if (settled[i]) continue;
      if (!module_.canReach(plan[i].stage)) return workerSpent;
      board_.beginCheck(plan[i].path);
      if (!runCheck(plan[i], i)) return workerSpent;
    }
    return workerDone;
  }

  void leave() {
    try {
      module_.leave();
    } catch (const CallEnded&) {
    }
  }

 private:
  void send(const Record& record) const {
    if (write(pipe_, &record, sizeof record) != sizeof record) _exit(1);
  }

  bool runCheck(const Check& check, std::uint32_t number) {
    const MemoryScope scope(caller_.memory);
    try {
      Bench bench(caller_, target_.token, keys_, check);
      prepare(check, bench);
      const Finding finding = bench.run();
      const bool sound = finding.verdict != Verdict::crashed && finding.verdict != Verdict::wrong;
      if (sound && !check.spoils) close(bench);
      send(Record::of(number, finding));
      return sound && !check.spoils;
    } catch (const SetUpFailed& failed) {
      send(Record::of(number, failed.finding, Record::Kind::setUpFailed));
    } catch (const CallEnded& ended) {
      const Finding finding{
          Verdict::deviates, nameOf(ended.function), {}, "did not end as a call does"};
      send(Record::of(number, finding, Record::Kind::setUpFailed));
    }
    return false;
  }

  void prepare(const Check& check, Bench& bench) {
    board_.settingUp = true;
    module_.reach(check.stage);
    if (check.stage >= Stage::session) {
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
