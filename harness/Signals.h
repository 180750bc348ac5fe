// What the operator still learns when the module or a signal ends the process.
#pragma once

#include <signal.h>

#include <vector>

namespace kestrel {

// Installs handlers for the signals that end a process by default: crashes, and whatever else is
// not ignored (as nohup has it). Each says on standard error in which call the process was, gives
// the terminal its echo back, wipes the PINs, writes what is pending of the report, and then lets
// the signal have its default effect. A second signal on top of that has it at once. A stack
// overflow on the calling thread is met as well.
void installSignalHandlers();

// Gives the calling thread, other than the first, the stack on which a handler runs after an
// overflow. To be called once by the thread.
void useSignalStack();

// From now on the operator's interrupt is the ordinary end of the run: nothing is said about it.
void expectInterrupt();

// While it lives, the signals that end the process are met as installSignalHandlers() has it, and
// not blocked on this thread (but for real-time ones), whatever the module made of them. Handlers
// of the module's own for crashes and timers stay: some modules live by them.
class SignalsMet {
 public:
  SignalsMet();
  ~SignalsMet();
  SignalsMet(const SignalsMet&) = delete;
  SignalsMet& operator=(const SignalsMet&) = delete;

 private:
  struct Replaced {
    int number;
    struct sigaction action;
  };
  std::vector<Replaced> replaced_;
  sigset_t blocked_{};
};

}  // namespace kestrel
