#include "harness/Signals.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

#include "harness/CallInFlight.h"
#include "harness/Output.h"
#include "harness/ProcessEnd.h"

namespace kestrel {

namespace {

enum class Kind {
  crash,     // the fault of the thread that gets it; met even where it is ignored
  asked,     // by the operator or the shell, who know of it
  realTime,  // blocked, it may be one that a module waits for
  other,
};

struct EndingSignal {
  int number;
  Kind kind = Kind::other;
};

constexpr EndingSignal ordinarySignals[] = {
    {SIGSEGV, Kind::crash},
    {SIGBUS, Kind::crash},
    {SIGFPE, Kind::crash},
    {SIGILL, Kind::crash},
    {SIGABRT, Kind::crash},
    {SIGTRAP, Kind::crash},
    {SIGSYS, Kind::crash},
    {SIGINT, Kind::asked},
    {SIGTERM, Kind::asked},
    {SIGHUP, Kind::asked},
    {SIGQUIT, Kind::asked},
    {SIGPIPE, Kind::asked},
    {SIGALRM},
    {SIGVTALRM},
    {SIGPROF},
    {SIGXCPU},
    {SIGXFSZ},
    {SIGUSR1},
    {SIGUSR2},
    {SIGIO},
    {SIGPWR},
    {SIGSTKFLT},
};

// The C library keeps the two below SIGRTMIN to itself.
template <typename Function>
void forEachEndingSignal(Function function) {
  for (const EndingSignal& signal : ordinarySignals) function(signal);
  for (int number = SIGRTMIN; number <= SIGRTMAX; ++number) function({number, Kind::realTime});
}

EndingSignal endingSignal(int number) {
  const auto* const found = std::ranges::find(ordinarySignals, number, &EndingSignal::number);
  return found == std::end(ordinarySignals) ? EndingSignal{number, Kind::realTime} : *found;
}

// As kill(1) has it: "TERM", "RTMIN", "RTMIN+3".
class SignalName {
 public:
  explicit SignalName(int number) {
    const char* const known = sigabbrev_np(number);
    if (known != nullptr) {
      name_ = known;
    } else if (number > SIGRTMIN) {
      const char* const end = std::to_chars(text_.data() + 6, text_.end(), number - SIGRTMIN).ptr;
      name_ = {text_.data(), end};
    }
  }
  operator std::string_view() const { return name_; }

 private:
  std::array<char, 9> text_{"RTMIN+"};
  std::string_view name_ = "RTMIN";
};

constexpr std::size_t signalStackSize = std::size_t{64} * 1024;

std::atomic<bool> interruptIsOrdinary = false;
std::atomic<pthread_t> handlingThread = 0;

void explain(const EndingSignal& signal) {
  const SignalName name(signal.number);
  const char* call = CallInFlight::name();
  const char* const first = CallInFlight::nameOnWatchedThread();
  // An interrupt may come to any thread; a broken pipe is the fault of the one that wrote.
  if (signal.kind == Kind::asked && signal.number != SIGPIPE && call == nullptr) call = first;
  if (call != nullptr) {
    putError({"kestrel: SIG", name, " in ", CallInFlight::owner(call), call, "()\n"});
  } else if (signal.kind == Kind::asked) {
    return;
  } else if (CallInFlight::onWatchedThread()) {
    putError({"kestrel: SIG", name, " outside any call into the module\n"});
  } else if (first != nullptr) {
    putError({"kestrel: SIG", name, " on another thread during ", CallInFlight::owner(first), first,
              "()\n"});
  } else {
    putError({"kestrel: SIG", name, " on another thread, outside any call into the module\n"});
  }
}

void takeDefaultEffect(int number) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, number);
  std::signal(number, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  raise(number);
}

// A crash while another thread is on its way out is only a consequence; any other second signal is
// for who lost patience, or for a handler that crashed itself.
bool isFirst(const EndingSignal& signal) {
  pthread_t nobody = 0;
  if (handlingThread.compare_exchange_strong(nobody, pthread_self())) return true;
  while (signal.kind == Kind::crash && nobody != pthread_self()) pause();
  return false;
}

void endBySignal(int number) {
  const EndingSignal signal = endingSignal(number);
  if (isOwnProcess() && isFirst(signal)) {
    if (number != SIGINT || !interruptIsOrdinary) explain(signal);
    tidyUp();
  }
  takeDefaultEffect(number);
}

bool isOurs(const struct sigaction& action) {
  return action.sa_handler == endBySignal;
}

void meet(int number) {
  struct sigaction action = {};
  action.sa_handler = endBySignal;
  action.sa_flags = SA_ONSTACK | SA_NODEFER;
  sigemptyset(&action.sa_mask);
  sigaction(number, &action, nullptr);
}

}  // namespace

void useSignalStack() {
  alignas(std::max_align_t) static thread_local std::array<char, signalStackSize> stack;
  stack_t alternate = {};
  alternate.ss_sp = stack.data();
  alternate.ss_size = stack.size();
  sigaltstack(&alternate, nullptr);
}

void installSignalHandlers() {
  useSignalStack();
  CallInFlight::watchThisThread();
  forEachEndingSignal([](const EndingSignal& signal) {
    struct sigaction action = {};
    sigaction(signal.number, nullptr, &action);
    if (action.sa_handler != SIG_IGN || signal.kind == Kind::crash) meet(signal.number);
  });
}

void expectInterrupt() {
  interruptIsOrdinary = true;
}

SignalsMet::SignalsMet() {
  sigset_t ending;
  sigemptyset(&ending);
  forEachEndingSignal([&](const EndingSignal& signal) {
    if (signal.kind != Kind::realTime) sigaddset(&ending, signal.number);
    struct sigaction action = {};
    sigaction(signal.number, nullptr, &action);
    if (isOurs(action) || action.sa_handler == SIG_IGN) return;
    if (action.sa_handler != SIG_DFL) {
      if (signal.kind != Kind::asked) return;
      replaced_.push_back({signal.number, action});
    }
    meet(signal.number);
  });
  pthread_sigmask(SIG_UNBLOCK, &ending, &blocked_);
}

SignalsMet::~SignalsMet() {
  for (const Replaced& one : replaced_) sigaction(one.number, &one.action, nullptr);
  pthread_sigmask(SIG_SETMASK, &blocked_, nullptr);
}

}  // namespace kestrel
