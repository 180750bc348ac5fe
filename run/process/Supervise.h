// One process, from its start to the end of everything that it started.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "run/process/Ended.h"
#include "run/process/Interrupt.h"
#include "run/process/OperatorTerminal.h"
#include "run/process/Pins.h"
#include "run/process/Spawn.h"

namespace kestrel {

// The answer to a prompt: a PIN, or why there is none.
struct PinAnswer {
  const Pin* pin = nullptr;
  std::string reason;
};

// What a process may do, and who learns of it. A function that is not set is not called.
struct Supervision {
  Interrupt& interrupt;
  double timeout = 0;    // seconds, 0 for none; the time that an operator types does not count
  bool patient = false;  // the first interrupt waits for the process to end by itself
  bool endless = false;  // a report beyond the limit loses its middle and ends nothing
  OperatorTerminal* lent = nullptr;  // the process gets a terminal behind this one
  // For which slot position the output so far ends in a prompt, and the answer to it.
  std::function<std::optional<std::uint64_t>(std::string_view output)> promptAtEnd = {};
  std::function<PinAnswer(std::uint64_t position)> pin = {};
  std::function<void(std::string_view output, double seconds)> progress = {};  // now and then
};

// Makes this process the parent of all that loses its own, so that no daemon escapes. To be called
// once, before any process is started.
void adoptOrphans();

// Starts a program in a session of its own, deals with it until it has ended, and kills what it
// leaves behind. Its standard input is a pipe on which only prompts for a PIN are answered (at its
// end at once when `pin` is not set), or the lent terminal. A process that has to end gets an
// interrupt first, so that kestrel names the call that it is in, and two seconds. Throws
// std::system_error when the program cannot be started.
Ended supervise(const Command& command, const Supervision& supervision);

}  // namespace kestrel
