// The operator's terminal: questions with an answer that nobody sees, and the terminal lent to a
// test.
#pragma once

#include <termios.h>

#include <memory>
#include <span>
#include <string_view>

#include "common/Descriptor.h"
#include "run/process/Interrupt.h"

namespace kestrel {

class OperatorTerminal {
 public:
  // The terminal on standard input; null when that is none.
  static std::unique_ptr<OperatorTerminal> open();

  int descriptor() const { return descriptor_.get(); }

  void write(std::string_view text) const;

  // Asks for a line without echo. Returns its length without the line end, 0 for an empty line, the
  // end of input or an interrupt. What does not fit into `answer` is lost, and counted.
  std::size_t ask(std::string_view question, std::span<char> answer, Interrupt& interrupt) const;

 private:
  explicit OperatorTerminal(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}

  Descriptor descriptor_;
};

// Other modes of a terminal, until the end of the object's life.
class TerminalModes {
 public:
  enum class Kind {
    hidden,  // a line without echo
    lent,    // every byte as it is typed: another terminal behind it does the rest
  };
  TerminalModes(int descriptor, Kind kind);
  ~TerminalModes();
  TerminalModes(const TerminalModes&) = delete;
  TerminalModes& operator=(const TerminalModes&) = delete;

 private:
  int descriptor_;
  termios saved_{};
};

}  // namespace kestrel
