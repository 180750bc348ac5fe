#include "run/process/OperatorTerminal.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

namespace kestrel {

std::unique_ptr<OperatorTerminal> OperatorTerminal::open() {
  if (isatty(STDIN_FILENO) == 0) return nullptr;
  Descriptor descriptor(::open("/dev/tty", O_RDWR | O_CLOEXEC));
  if (descriptor.get() < 0) return nullptr;
  return std::unique_ptr<OperatorTerminal>(new OperatorTerminal(std::move(descriptor)));
}

void OperatorTerminal::write(std::string_view text) const {
  while (!text.empty()) {
    const ssize_t count = ::write(descriptor(), text.data(), text.size());
    if (count <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

std::size_t OperatorTerminal::ask(std::string_view question, std::span<char> answer,
                                  Interrupt& interrupt) const {
  const TerminalModes modes(descriptor(), TerminalModes::Kind::hidden);
  write(question);
  std::size_t length = 0;
  for (;;) {
    pollfd events[] = {{descriptor(), POLLIN, 0}, {interrupt.descriptor(), POLLIN, 0}};
    poll(events, 2, -1);
    if (events[1].revents != 0) {
      length = 0;
      break;
    }
    char byte = 0;
    if (read(descriptor(), &byte, 1) != 1 || byte == '\n') break;
    if (length < answer.size()) answer[length] = byte;
    ++length;
  }
  write("\n");
  return length;
}

TerminalModes::TerminalModes(int descriptor, Kind kind) : descriptor_(descriptor) {
  tcgetattr(descriptor_, &saved_);
  termios modes = saved_;
  if (kind == Kind::lent) {
    cfmakeraw(&modes);
    modes.c_oflag = saved_.c_oflag;
  } else {
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    modes.c_cc[VSUSP] = _POSIX_VDISABLE;  // a shell would get its terminal back without echo
  }
  tcsetattr(descriptor_, TCSANOW, &modes);
}

TerminalModes::~TerminalModes() {
  tcsetattr(descriptor_, TCSANOW, &saved_);
}

}  // namespace kestrel
