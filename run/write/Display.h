// What the operator sees of the runs.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "run/results/Results.h"

namespace kestrel::run {

// Writes to a stream: a line for every finished test, on a terminal one more that shows the running
// one, and the totals. With `quiet`, only what did not pass and the totals.
class Display {
 public:
  Display(std::FILE* stream, bool quiet);

  void beginModule(const ModuleResult& module, bool several);
  void beginTest(std::string_view test, unsigned run, unsigned runs);
  void progress(std::string_view output, double seconds);  // output since the last time
  bool moves() const { return moving_; }
  void clear();  // the line of the running test, before anything else is written there
  void finished(const TestResult& test);

  // Modules side by side if there are several, the changes against a baseline, and the totals.
  void finish(const Results& results, double seconds);

  // Whether all of it has been written. Until asked for, a reader who went away ends nothing.
  bool complete() const { return std::ferror(stream_) == 0; }

 private:
  void print(const std::string& line);
  void table(const Results& results);
  std::string painted(Outcome outcome, std::size_t width = 0) const;

  std::FILE* stream_;
  bool quiet_, moving_, colors_;
  std::string running_, heading_;
  std::size_t calls_ = 0;
};

}  // namespace kestrel::run
