#include "run/process/Interrupt.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace kestrel {

Interrupt::Interrupt() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&signals, number);
  }
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  descriptor_ = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (descriptor() < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

int Interrupt::count() {
  signalfd_siginfo info;
  while (read(descriptor(), &info, sizeof info) == sizeof info) ++count_;
  return count_;
}

}  // namespace kestrel
