#include "harness/Signals.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "harness/Module.h"
#include "harness/Pin.h"
#include "harness/Terminal.h"

namespace {

struct EndingSignal {
  int number;
  const char* name;
  bool crash;
};

constexpr std::array<EndingSignal, 10> endingSignals{{
    {SIGSEGV, "SIGSEGV", true},
    {SIGBUS, "SIGBUS", true},
    {SIGFPE, "SIGFPE", true},
    {SIGILL, "SIGILL", true},
    {SIGABRT, "SIGABRT", true},
    {SIGINT, "SIGINT", false},
    {SIGTERM, "SIGTERM", false},
    {SIGHUP, "SIGHUP", false},
    {SIGQUIT, "SIGQUIT", false},
    {SIGPIPE, "SIGPIPE", false},
}};

constexpr std::size_t signalStackSize = std::size_t{64} * 1024;

// Standard error as a handler may write it: one line, no buffer of the C library.
void writeError(std::initializer_list<const char*> pieces) {
  std::array<char, 160> line;
  std::size_t length = 0;
  for (const char* piece : pieces) {
    const std::size_t size = std::strlen(piece);
    if (size > line.size() - length) break;
    std::memcpy(line.data() + length, piece, size);
    length += size;
  }
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), length);
}

// A call in flight on this thread means that this thread is in the module and not inside stdio, so
// that the report can be flushed. Without one, nothing is flushed: the crash may be stdio's own.
void explain(const EndingSignal& signal) {
  const char* call = CallInFlight::name();
  if (call != nullptr) {
    std::fflush(stdout);
    writeError({"kestrel: ", signal.name, " in the module's ", call, "()\n"});
  } else if (signal.crash) {
    writeError({"kestrel: ", signal.name, " outside any call into the module\n"});
  }
}

// Runs last of all exit handlers. With a call in flight the exit is not kestrel's but the module's.
void refuseForeignExit() {
  const char* call = CallInFlight::name();
  if (call == nullptr) return;
  std::fflush(stdout);
  writeError({"kestrel: the module's ", call, "() ended the process\n"});
  Pin::wipeAll();
  std::_Exit(1);
}

void endBySignal(int number) {
  restoreEcho();
  for (const EndingSignal& signal : endingSignals) {
    if (signal.number == number) explain(signal);
  }
  std::signal(number, SIG_DFL);
  raise(number);  // blocked while its handler runs: it ends the process on return
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
  std::atexit(refuseForeignExit);
  for (const EndingSignal& signal : endingSignals) {
    struct sigaction action = {};
    sigaction(signal.number, nullptr, &action);
    if (action.sa_handler == SIG_IGN && !signal.crash) continue;  // as nohup asked
    action = {};
    action.sa_handler = endBySignal;
    action.sa_flags = SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    sigaction(signal.number, &action, nullptr);
  }
}
