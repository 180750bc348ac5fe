// Runs a program on a pseudo terminal and deals with it as an operator would:
//   pty ACTION... -- PROGRAM ARGUMENT...
// Actions: "?TEXT" waits until TEXT has come out since the last action; "off" and "on" wait until
// the terminal does not echo, or does, and note which it is; anything else is typed, a "\n" at its
// end as the return key. Then the program's whole output is printed, with the notes in place,
// whether the terminal echoes in the end, and the signal that ended the program if one did.
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

std::string transcript;
int terminal = -1;

// Takes what the program printed; false at its end or after ten seconds of silence.
bool receive() {
  pollfd ready{terminal, POLLIN, 0};
  char bytes[4096];
  if (poll(&ready, 1, 10000) <= 0) return false;
  const ssize_t count = read(terminal, bytes, sizeof bytes);
  for (ssize_t i = 0; i < count; ++i) {
    if (bytes[i] != '\r') transcript += bytes[i];
  }
  return count > 0;
}

bool echoes() {
  termios modes{};
  tcgetattr(terminal, &modes);
  return (modes.c_lflag & ECHO) != 0;
}

void noteEcho() {
  transcript += echoes() ? "[echo on]" : "[echo off]";
}

void act(std::string action, std::size_t& seen) {
  if (action.ends_with("\\n")) action.replace(action.size() - 2, 2, "\n");
  if (action == "on" || action == "off") {
    for (int i = 0; i < 1000 && echoes() != (action == "on"); ++i) usleep(10000);
    noteEcho();
  } else if (action[0] == '?') {
    std::size_t found;
    while ((found = transcript.find(action.substr(1), seen)) == std::string::npos) {
      if (!receive()) {
        std::printf("%s\n[never said '%s']\n", transcript.c_str(), action.c_str() + 1);
        std::exit(3);
      }
    }
    seen = found + action.size() - 1;
  } else if (write(terminal, action.data(), action.size()) < 0) {
    std::perror("pty");
  }
}

}  // namespace

int main(int argc, char** argv) {
  int program = 1;
  while (program < argc && std::strcmp(argv[program], "--") != 0) ++program;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    execvp(argv[program + 1], argv + program + 1);
    _exit(127);
  }
  std::size_t seen = 0;
  for (int i = 1; i < program; ++i) act(argv[i], seen);
  while (receive()) {
  }
  noteEcho();
  int status = 0;
  waitpid(child, &status, 0);
  std::fwrite(transcript.data(), 1, transcript.size(), stdout);
  std::putchar('\n');
  if (WIFSIGNALED(status)) {
    const char* const name = sigabbrev_np(WTERMSIG(status));  // none for real-time signals
    std::printf("[ended by %s]\n",
                name == nullptr ? std::to_string(WTERMSIG(status)).c_str() : name);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 0;
}
