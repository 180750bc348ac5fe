#include "harness/ProcessEnd.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <exception>

#include "harness/CallInFlight.h"
#include "harness/Output.h"
#include "harness/Pin.h"
#include "harness/Terminal.h"

namespace kestrel {

namespace {

std::atomic<bool> secondThread = false;
std::atomic<bool> watching = false;
std::atomic<pthread_t> endingThread = 0;
std::atomic<int> ownStatus = 0;
std::atomic<bool> handlersAreDone = false;

// Past every exit handler and past _exit() below.
[[noreturn]] void endNow(int status) {
  for (;;) syscall(SYS_exit_group, status);
}

void nameForeignEnd() {
  const char* const call = CallInFlight::name();
  const char* const first = CallInFlight::nameOnWatchedThread();
  if (call != nullptr) {
    putError({"kestrel: ", CallInFlight::owner(call), call, "() ended the process\n"});
  } else if (CallInFlight::onWatchedThread()) {
    putError({"kestrel: the process was ended outside any call into the module\n"});
  } else if (first != nullptr) {
    putError({"kestrel: another thread ended the process during ", CallInFlight::owner(first),
              first, "()\n"});
  } else {
    putError({"kestrel: another thread ended the process outside any call into the module\n"});
  }
}

// Says no to an end of the process with `status`, unless it is kestrel's own or that of a process
// that the module forked. A module's exit handler cannot change kestrel's status, and what runs
// after this may flush stdout.
void refuse(int status) {
  if (!watching || !isOwnProcess()) return;
  if (endingThread == pthread_self()) {
    if (status != ownStatus || stdoutIsHeld()) endNow(ownStatus);
    return;
  }
  nameForeignEnd();
  tidyUp();
  endNow(1);
}

}  // namespace

void endProgram(int status, std::string_view lastLine) {
  pthread_t nobody = 0;
  if (!endingThread.compare_exchange_strong(nobody, pthread_self())) {
    if (nobody == pthread_self()) endNow(1);
    for (;;) pause();
  }
  CallInFlight::forget();
  restoreEcho();
  Pin::wipeAll();
  sendForeignText();
  ownStatus = finishReport(lastLine) ? status & 0xff : 1;
  if (secondThread) endNow(ownStatus);
  std::exit(ownStatus);
}

void expectSecondThread() {
  secondThread = true;
}

void settleReport() {
  if (reportIsDue()) flushReport();
}

void flushReport() {
  if (!sendReport()) endProgram(1);
}

void refuseForeignEnds() {
  watching = true;
  const auto lastHandler = [](int status, void*) {  // behind those of atexit()
    refuse(status & 0xff);
    handlersAreDone = true;
  };
  on_exit(lastHandler, nullptr);
  at_quick_exit([] { refuse(-1); });
}

void tidyUp() {
  restoreEcho();
  Pin::wipeAll();
  salvageReport();
}

const char* whatWasThrown() {
  try {
    throw;
  } catch (const std::exception& exception) {
    return exception.what();
  } catch (...) {
    return "not a std::exception";
  }
}

namespace {

// The rest of the handlers is left out: nobody knows what they relied on.
[[noreturn]] void endAfterException(int status) {
  if (watching && isOwnProcess()) {
    putError({"kestrel: an exception left the module at the end of the process: ", whatWasThrown(),
              "\n"});
    if (endingThread != pthread_self()) refuse(status);
    status = ownStatus == 0 ? 1 : ownStatus.load();
  }
  endNow(status);
}

}  // namespace

// A module that ends the process calls one of these three functions, and finds kestrel's. The C
// library's would end the run in silence, with a status of the module's choice: its _exit() and
// _Exit() run no handler at all, and its exit() runs none when a destructor of the module calls it,
// because by then the handlers have run.
//
// A destructor may throw, and the exception comes out of the library's exit(). The header says that
// no exception does, so that the compiler may leave out a handler around that call. This is why
// the function has another name here, and finds the library's by its address.
extern "C" [[noreturn]] void exitOrRefuse(int status) __asm__("exit");
void exitOrRefuse(int status) {
  if (handlersAreDone && isOwnProcess()) status = ownStatus;
  static const auto exitOfLibrary = reinterpret_cast<void (*)(int)>(dlsym(RTLD_NEXT, "exit"));
  try {
    exitOfLibrary(status);
  } catch (...) {
    endAfterException(status);
  }
  endNow(status);
}

extern "C" void _exit(int status) {
  refuse(status & 0xff);
  endNow(status);
}

extern "C" void _Exit(int status) noexcept {
  _exit(status);
}

}  // namespace kestrel
