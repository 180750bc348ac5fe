// Processes from their start to the end of all that they started: small real ones.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <system_error>
#include <thread>

#include "run/process/Folder.h"
#include "run/process/Orphans.h"
#include "run/process/Supervise.h"

namespace kestrel {
namespace {

// "PIN N: " at the end of the output.
std::optional<std::uint64_t> pinPrompt(std::string_view output) {
  if (output.size() < 7 || !output.ends_with(": ")) return std::nullopt;
  const std::string_view prompt = output.substr(output.size() - 7);
  if (!prompt.starts_with("PIN ")) return std::nullopt;
  return prompt[4] - '0';
}

class Supervised : public testing::Test {
 protected:
  Supervised() { adoptOrphans(); }
  ~Supervised() override { EXPECT_TRUE(childProcesses().empty()); }

  Ended run(const std::string& script) { return supervise({"/bin/sh", {"-c", script}, {}}, how_); }

  // What the script says when each of its prompts is answered with 4711.
  std::string answered(const std::string& script) {
    how_.promptAtEnd = pinPrompt;
    how_.pin = [this](std::uint64_t) { return PinAnswer{&pin_, ""}; };
    return run(script).report;
  }

  Interrupt interrupt_;
  const Pin pin_{"4711", "test"};
  Supervision how_{.interrupt = interrupt_, .timeout = 20};
};

TEST_F(Supervised, LeavesWhatItWroteAndItsStatus) {
  const TemporaryFolder folder;
  const Ended ended = supervise({"/bin/sh",
                                 {"-c", "pwd; cat; ls /proc/self/fd | wc -l; echo $X >&2; exit 3"},
                                 folder.path(),
                                 {"X=y"}},
                                how_);
  EXPECT_EQ(ended.report, folder.path().string() + "\n4\n");
  EXPECT_EQ(ended.errors, "y\n");
  EXPECT_EQ(WEXITSTATUS(ended.status), 3);
  EXPECT_EQ(ended.by, Ended::By::itself);
  EXPECT_FALSE(ended.cut);
  EXPECT_EQ(WTERMSIG(run("kill -SEGV $$").status), SIGSEGV);
  EXPECT_THROW(supervise({"/no/program", {}, {}}, how_), std::system_error);
}

TEST_F(Supervised, IsWaitedForWhateverItDoesToItsStreams) {
  const Ended closed = run("exec <&- >&- 2>&-; sleep 0.3; exit 4");
  EXPECT_EQ(WEXITSTATUS(closed.status), 4);
  const Ended silent = run("echo x; sleep 0.3");
  EXPECT_GE(silent.silence, 0.25);
  EXPECT_LE(silent.silence, silent.seconds);
  // One that keeps the streams open does not keep kestrel-run.
  const Ended daemon = run("trap '' INT TERM HUP; (setsid sleep 100 &); echo started");
  EXPECT_EQ(daemon.report, "started\n");
  EXPECT_LT(daemon.seconds, 5);
}

TEST_F(Supervised, EndsAtItsTimeLimit) {
  how_.timeout = 0.3;
  const Ended told = run("trap 'echo told; exit 7' INT; sleep 100 & wait");
  EXPECT_EQ(told.by, Ended::By::timeLimit);
  EXPECT_EQ(WEXITSTATUS(told.status), 7);
  EXPECT_EQ(told.report, "told\n");
  EXPECT_EQ(WTERMSIG(run("kill -STOP $$").status), SIGINT);
  const Ended deaf = run("trap '' INT; while :; do sleep 1; done");
  EXPECT_EQ(WTERMSIG(deaf.status), SIGKILL);
  EXPECT_GE(deaf.seconds, 2.25);
  EXPECT_LT(deaf.seconds, 4);
}

TEST_F(Supervised, IsInterruptedWithTheProgram) {
  const Ended ended = run("kill -INT $PPID; exec sleep 100");
  EXPECT_EQ(ended.by, Ended::By::interrupt);
  EXPECT_EQ(WTERMSIG(ended.status), SIGINT);
  // The second interrupt, of a process that takes none.
  Interrupt again;
  const Ended deaf =
      supervise({"/bin/sh",
                 {"-c", "trap '' INT; kill -TERM $PPID; sleep 0.3; kill -TERM $PPID; sleep 100"},
                 {}},
                {.interrupt = again, .timeout = 20});
  EXPECT_EQ(WTERMSIG(deaf.status), SIGKILL);
  EXPECT_LT(deaf.seconds, 1.8);
}

TEST_F(Supervised, ComesToItsEndIfItIsToBePatientWith) {
  how_.patient = true;
  const Ended patient = run("kill -HUP $PPID; sleep 0.3; echo end");
  EXPECT_EQ(patient.by, Ended::By::itself);
  EXPECT_EQ(patient.report, "end\n");
  EXPECT_EQ(run("kill -QUIT $PPID; exec sleep 100").by, Ended::By::interrupt);
}

TEST_F(Supervised, MayWriteSoMuchAndNoMore) {
  const Ended flood = run("echo first; exec yes");
  EXPECT_EQ(flood.by, Ended::By::reportLimit);
  EXPECT_TRUE(flood.cut);
  EXPECT_EQ(flood.report.size(), reportLimit);
  EXPECT_EQ(flood.report.substr(0, 8), "first\ny\n");
  how_.endless = true;
  const Ended endless = run("echo first; yes | head -c 40000000; echo last");
  EXPECT_EQ(endless.by, Ended::By::itself);
  EXPECT_TRUE(endless.cut);
  EXPECT_LE(endless.report.size(), reportLimit);
  EXPECT_TRUE(endless.report.starts_with("first\ny\n") && endless.report.ends_with("y\nlast\n"));
}

TEST_F(Supervised, GetsAPinWhereItWaitsForOne) {
  EXPECT_EQ(answered("printf 'PIN 3: '; read x; echo $x; printf 'PIN 4: '; read x; echo $x"),
            "PIN 3: 4711\nPIN 4: 4711\n");
  // Not for a text that goes on, nor twice for one position.
  how_.timeout = 0.6;
  EXPECT_EQ(answered("printf 'PIN 3: '; sleep 0.2; echo; read x; echo $x"), "PIN 3: \n");
  EXPECT_EQ(answered("printf 'PIN 3: '; read x; echo; printf 'PIN 3: '; read x; echo $x"),
            "PIN 3: \nPIN 3: ");
}

TEST_F(Supervised, IsNotTimedWhileTheOperatorTypes) {
  how_.timeout = 0.5;
  how_.promptAtEnd = pinPrompt;
  how_.pin = [this](std::uint64_t) {
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    return PinAnswer{&pin_, ""};
  };
  const Ended typed = run("printf 'PIN 3: '; read x; echo; sleep 0.1");
  EXPECT_EQ(typed.by, Ended::By::itself);
  EXPECT_LT(typed.seconds, 0.5);
  EXPECT_EQ(typed.answered, std::vector<std::uint64_t>{3});
  how_.pin = [](std::uint64_t) { return PinAnswer{nullptr, "none"}; };
  const Ended refused = run("printf 'PIN 3: '; read x");
  EXPECT_EQ(refused.by, Ended::By::lackOfPin);
  EXPECT_EQ(refused.reason, "none");
  EXPECT_TRUE(refused.answered.empty());
}

TEST_F(Supervised, ShowsHowFarItIs) {
  std::string seen;
  double last = 0;
  how_.progress = [&](std::string_view output, double seconds) {
    seen += output;
    EXPECT_GT(seconds, last);
    last = seconds;
  };
  run("echo a; echo no >&2; sleep 0.3; echo b; sleep 0.3");
  EXPECT_EQ(seen, "a\nb\n");
  EXPECT_GE(last, 0.5);
}

// A process may be gone between the look for it and the look at it.
TEST_F(Supervised, IsLookedForAmongProcessesThatComeAndGo) {
  how_.progress = [](std::string_view, double) {
    for (int i = 0; i < 400; ++i) childProcesses();
  };
  const std::string busy = "(for i in $(seq 4000); do (:); done) & ";
  EXPECT_EQ(run(busy + busy + "wait; echo done").report, "done\n");
}

}  // namespace
}  // namespace kestrel
