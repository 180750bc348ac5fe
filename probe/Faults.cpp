#include "probe/Faults.h"

#include <ucontext.h>

#include <array>
#include <csignal>
#include <cstddef>

#include "probe/Calls.h"

namespace kestrel::probe {

namespace {

Board* noted = nullptr;

// The processor's word on a page fault: bit 1 is set for a write.
bool isWrite(void* context) {
  constexpr greg_t writeBit = 2;
  return (static_cast<const ucontext_t*>(context)->uc_mcontext.gregs[REG_ERR] & writeBit) != 0;
}

void noteFault(int number, siginfo_t* info, void* context) {
  if (!noted->faulted.exchange(true)) {
    noted->faultCall = Caller::callOfThisThread();
    if (number == SIGSEGV || number == SIGBUS) {
      noted->faultPlace = Caller::placeOf(info->si_addr);
      noted->faultWrites = isWrite(context);
    }
  }
  std::signal(number, SIG_DFL);
  raise(number);
}

}  // namespace

void noteFaultsOn(Board& board) {
  noted = &board;
  useFaultStack();
  struct sigaction action = {};
  action.sa_sigaction = noteFault;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&action.sa_mask);
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
    sigaction(number, &action, nullptr);
  }
}

void useFaultStack() {
  alignas(std::max_align_t) static thread_local std::array<char, std::size_t{64} * 1024> stack;
  stack_t alternate = {};
  alternate.ss_sp = stack.data();
  alternate.ss_size = stack.size();
  sigaltstack(&alternate, nullptr);
}

}  // namespace kestrel::probe
