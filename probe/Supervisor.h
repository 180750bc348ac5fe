// Has the checks of a plan run by workers: when one dies or hangs, its check has a verdict, and
// another goes on behind it.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "probe/Board.h"
#include "probe/Check.h"
#include "probe/Worker.h"
#include "run/process/Interrupt.h"

namespace kestrel::probe {

// Who learns of it. A function that is not set is not called.
struct Audience {
  std::function<void(const Check&, double seconds)> running = {};  // now and then
  std::function<void(const Check&, const Finding&)> fell = {};
};

class Supervisor {
 public:
  // `timeout` in seconds, of one check with what leads to it.
  Supervisor(Board& board, Interrupt& interrupt, double timeout, Audience audience)
      : board_(board), interrupt_(interrupt), timeout_(timeout), audience_(std::move(audience)) {}

  // The findings, one a check, in the order of the plan. `settled` has those that need no process.
  // Ends early, with fewer, when it is interrupted.
  std::vector<Finding> run(const Target& target, const Plan& plan,
                           std::vector<std::optional<Finding>> settled);

  bool interrupted() { return interrupt_.count() > tolerated_; }

  // For what has to be done all the same: the interrupts until now end nothing any more.
  void tolerateInterrupts() { tolerated_ = interrupt_.count(); }

 private:
  class Run;

  Board& board_;
  Interrupt& interrupt_;
  double timeout_;
  int tolerated_ = 0;
  Audience audience_;
};

}  // namespace kestrel::probe
