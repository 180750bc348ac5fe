#include "harness/Terminal.h"

#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iostream>

#include "harness/Report.h"

namespace {

termios savedTerminal;
struct sigaction stopsBefore;
volatile std::sig_atomic_t echoIsOff = 0;

void hideEcho() {
  termios hidden = savedTerminal;
  hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSANOW, &hidden);
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
  tcsetattr(STDIN_FILENO, TCSANOW, &savedTerminal);
  handleStops(SIG_DFL);
  raise(SIGTSTP);  // stops here, until the shell continues the process
  handleStops(stopAtPrompt);
  hideEcho();
  errno = error;
}

bool readByte(char& byte) {
  ssize_t count;
  do {
    count = read(STDIN_FILENO, &byte, 1);
  } while (count < 0 && errno == EINTR);
  return count == 1;
}

}  // namespace

void echoOff() {
  if (tcgetattr(STDIN_FILENO, &savedTerminal) != 0) {
    std::cerr << "Error getting terminal attributes\n";
    endProgram(-1);
  }
  echoIsOff = 1;
  sigaction(SIGTSTP, nullptr, &stopsBefore);
  if (stopsBefore.sa_handler != SIG_IGN) handleStops(stopAtPrompt);
  hideEcho();
}

void echoOn() {
  tcsetattr(STDIN_FILENO, TCSANOW, &savedTerminal);
  sigaction(SIGTSTP, &stopsBefore, nullptr);
  echoIsOff = 0;
}

void restoreEcho() {
  if (echoIsOff != 0) tcsetattr(STDIN_FILENO, TCSANOW, &savedTerminal);
}

void readLine(char* buffer, std::size_t size) {
  // An endless input without a newline (a device, a file of zeros) is not read for ever: after this
  // many bytes of one line it counts as ended.
  constexpr std::size_t longestLine = 65536;
  static bool ended = false;
  std::size_t kept = 0;
  char byte = 0;
  for (std::size_t i = 0; !ended && readByte(byte) && byte != '\n'; ++i) {
    if (kept + 1 < size) buffer[kept++] = byte;
    ended = i == longestLine;
  }
  buffer[kept] = '\0';
}
