// The process that loads the module and runs the checks.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "probe/Board.h"
#include "probe/Check.h"
#include "run/process/Pins.h"

namespace kestrel::probe {

// What does not change from one process to the next.
struct Target {
  std::filesystem::path module;
  std::optional<std::string> initArguments;  // for C_Initialize
  const Pin* pin = nullptr;                  // null: nobody logs in, for this reason
  std::string noPin = "there is no PIN";
  TokenFacts token = {};  // once it is known
};

// How a worker ends by itself.
inline constexpr int workerDone = 0;   // with the last check
inline constexpr int workerSpent = 3;  // the next check needs a new process

// Runs the checks of `plan` from `first` on that `settled` has no finding of, and sends a record
// for each to `pipe`. Never returns: the process is the fork of another and ends here.
[[noreturn]] void work(Board& board, const Target& target, const Plan& plan,
                       std::span<const std::optional<Finding>> settled, std::uint32_t first,
                       int pipe);

}  // namespace kestrel::probe
