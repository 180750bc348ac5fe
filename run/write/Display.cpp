#include "run/write/Display.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "common/FitText.h"
#include "common/Lines.h"
#include "harness/Tests.h"
#include "run/judge/Phrases.h"

namespace kestrel::run {

namespace {

template <typename Rows, typename Name>
constexpr std::size_t widest(const Rows& rows, Name name) {
  std::size_t width = 0;
  for (const auto& row : rows) width = std::max(width, std::string_view(row.*name).size());
  return width;
}

constexpr std::size_t outcomeWidth = widest(outcomeRows, &OutcomeRow::name);
constexpr std::size_t testWidth = widest(tests, &Test::name);

const char* environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

Display::Display(std::FILE* stream, bool quiet)
    : stream_(stream),
      quiet_(quiet),
      moving_(isatty(fileno(stream)) != 0 && std::string_view(environment("TERM")) != "dumb"),
      colors_(moving_ && *environment("NO_COLOR") == '\0') {}

void Display::beginModule(const ModuleResult& module, bool several) {
  if (!several) return;
  heading_ = fmt::format("{} ({})", visible(module.name), visible(module.path));
  if (!quiet_) print(std::exchange(heading_, ""));
}

void Display::beginTest(std::string_view test, unsigned run, unsigned runs) {
  running_ = runs == 1 ? test : fmt::format("{}, run {} of {}", test, run, runs);
  calls_ = 0;
  progress("", 0);
}

void Display::progress(std::string_view output, double seconds) {
  if (!moving_) return;
  while (!output.empty()) {
    const std::string_view line = takeLine(output);
    calls_ += line.ends_with('\n') && withoutEnd(line).ends_with(phrase::passed);
  }
  std::fputs(fmt::format("\r\x1b[K{} {:.0f} s, {} calls", running_, seconds, calls_).c_str(),
             stream_);
  std::fflush(stream_);
}

void Display::clear() {
  if (!moving_) return;
  std::fputs("\r\x1b[K", stream_);
  std::fflush(stream_);
}

void Display::finished(const TestResult& test) {
  clear();
  const Run& run = test.shown();
  if (quiet_ && test.passedRuns() == test.runs.size()) return;
  if (!heading_.empty()) print(std::exchange(heading_, ""));
  const std::string detail = outcomeDetail(test);
  const std::string cost =
      run.exitStatus < 0 ? ""
                         : fmt::format("{:>5} calls  {:>7.3f} s", run.calls.size(), test.seconds());
  print(fmt::format("{}  {:<{}}  {:22}  {}", painted(run.outcome, outcomeWidth), test.name,
                    testWidth, cost, visible(detail)));
}

void Display::finish(const Results& results, double seconds) {
  if (results.modules.size() > 1 && !quiet_) table(results);
  if (results.changes) {
    for (const std::string& words : results.otherOptions) print(visible(words));
    for (const Change& change : *results.changes) {
      if (change.difference.empty()) continue;
      print(fmt::format("{}: {} {}", changeName(change.kind), visible(change.module), change.test));
      if (change.kind != Change::fixed) print(visible(change.difference, Lines::kept));
    }
    print(visible(comparison(results)));
  }
  const OutcomeCounts counts = results.countOutcomes();
  std::string totals;
  for (const OutcomeRow& row : outcomeRows) {
    const std::size_t count = counts[static_cast<std::size_t>(row.outcome)];
    if (count == 0) continue;
    totals += fmt::format("{}{} {}", totals.empty() ? "" : ", ", count, row.name);
  }
  print(fmt::format("{}{}, {:.1f} s", results.interrupted ? "interrupted: " : "", totals, seconds));
}

void Display::table(const Results& results) {
  std::string heading = fmt::format("\n{:<{}}", "", testWidth);
  for (const ModuleResult& module : results.modules) {
    heading += fmt::format("  {:<{}}", visible(module.name), outcomeWidth);
  }
  print(heading);
  for (const std::string& name : results.testNames()) {
    std::string row = fmt::format("{:<{}}", name, testWidth);
    for (const ModuleResult& module : results.modules) {
      const std::size_t width = std::max(outcomeWidth, visible(module.name).size());
      const TestResult* const test = module.find(name);
      row += "  " +
             (test == nullptr ? std::string(width, ' ') : painted(test->shown().outcome, width));
    }
    print(row);
  }
}

void Display::print(const std::string& line) {
  const std::size_t end = line.find_last_not_of(' ');
  std::fputs((line.substr(0, end + 1) + '\n').c_str(), stream_);
  std::fflush(stream_);
}

std::string Display::painted(Outcome outcome, std::size_t width) const {
  const std::string text = fmt::format("{:<{}}", outcomeName(outcome), width);
  return colors_ ? fmt::format("\x1b[{}m{}\x1b[0m", rowOf(outcome).color, text) : text;
}

}  // namespace kestrel::run
