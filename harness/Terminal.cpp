#include "harness/Terminal.h"

#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "harness/StandardStream.h"

namespace kestrel {

namespace {

termios savedTerminal;
struct sigaction stopsBefore;
volatile std::sig_atomic_t echoIsOff = 0;

void apply(const termios& modes) {
  tcsetattr(standardInput.descriptor(), TCSANOW, &modes);
}

void hideEcho() {
  termios hidden = savedTerminal;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  apply(hidden);
}

void handleStops(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART | SA_NODEFER;
  sigaction(SIGTSTP, &action, nullptr);
}

// The shell gets its echo back while kestrel is stopped; the prompt goes on without it.
void stopAtPrompt(int) {
  const int error = errno;
  apply(savedTerminal);
  handleStops(SIG_DFL);
  raise(SIGTSTP);  // stops here, until the shell continues the process
  handleStops(stopAtPrompt);
  hideEcho();
  errno = error;
}

// Input that is not ready yet is waited for.
bool readByte(char& byte) {
  for (;;) {
    const int input = standardInput.descriptor();
    const ssize_t count = read(input, &byte, 1);
    if (count >= 0) return count == 1;
    if (errno == EAGAIN) {
      pollfd ready{input, POLLIN, 0};
      poll(&ready, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
}

// A device such as /dev/zero: there may be no end of it, nor of its first line.
bool mayBeEndless() {
  const int input = standardInput.descriptor();
  struct stat status = {};
  return fstat(input, &status) == 0 && S_ISCHR(status.st_mode) && isatty(input) == 0;
}

}  // namespace

bool echoOff() {
  if (tcgetattr(standardInput.descriptor(), &savedTerminal) != 0) return false;
  echoIsOff = 1;
  sigaction(SIGTSTP, nullptr, &stopsBefore);
  if (stopsBefore.sa_handler != SIG_IGN) handleStops(stopAtPrompt);
  hideEcho();
  return true;
}

void echoOn() {
  apply(savedTerminal);
  sigaction(SIGTSTP, &stopsBefore, nullptr);
  echoIsOff = 0;
}

void restoreEcho() {
  if (echoIsOff != 0) apply(savedTerminal);
}

void readLine(char* buffer, std::size_t size) {
  constexpr std::size_t longestLine = 65536;  // of what may be endless; then it counts as ended
  static bool ended = false;
  const std::size_t limit = mayBeEndless() ? longestLine : ~std::size_t{0};
  std::size_t kept = 0;
  char byte = 0;
  for (std::size_t i = 0; !ended && readByte(byte) && byte != '\n'; ++i) {
    if (kept + 1 < size) buffer[kept++] = byte;
    ended = i == limit;
  }
  buffer[kept] = '\0';
}

}  // namespace kestrel
