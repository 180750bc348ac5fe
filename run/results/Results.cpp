#include "run/results/Results.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

namespace kestrel::run {

const Run& TestResult::shown() const {
  return *std::max_element(runs.begin(), runs.end(),
                           [](const Run& a, const Run& b) { return a.outcome < b.outcome; });
}

std::size_t TestResult::passedRuns() const {
  return static_cast<std::size_t>(std::count_if(
      runs.begin(), runs.end(), [](const Run& run) { return run.outcome == Outcome::passed; }));
}

double TestResult::seconds() const {
  return std::accumulate(runs.begin(), runs.end(), 0.0,
                         [](double sum, const Run& run) { return sum + run.seconds; });
}

const TestResult* ModuleResult::find(const std::string& test) const {
  const auto found = std::find_if(tests.begin(), tests.end(),
                                  [&](const TestResult& each) { return each.name == test; });
  return found == tests.end() ? nullptr : &*found;
}

const Change* Results::findChange(const std::string& module, const std::string& test) const {
  const auto all = everyChange();
  const auto found = std::ranges::find_if(
      all, [&](const Change& change) { return change.module == module && change.test == test; });
  return found == all.end() ? nullptr : &*found;
}

OutcomeCounts Results::countOutcomes() const {
  OutcomeCounts counts{};
  eachTest([&](const ModuleResult&, const TestResult& test) {
    ++counts[static_cast<std::size_t>(test.shown().outcome)];
  });
  return counts;
}

std::vector<std::string> Results::testNames() const {
  std::vector<std::string> names;
  eachTest([&](const ModuleResult&, const TestResult& test) {
    if (std::ranges::find(names, test.name) == names.end()) names.push_back(test.name);
  });
  return names;
}

bool Results::allPassed() const {
  bool passed = !interrupted && !modules.empty();
  for (const ModuleResult& module : modules) passed = passed && !module.tests.empty();
  eachTest([&](const ModuleResult&, const TestResult& test) {
    passed = passed && !test.runs.empty() && test.passedRuns() == test.runs.size();
  });
  return passed;
}

bool Results::acceptable() const {
  if (!changes) return allPassed();
  return !interrupted && std::none_of(changes->begin(), changes->end(), [](const Change& change) {
    return change.kind == Change::broken || change.kind == Change::changed;
  });
}

std::string outcomeDetail(const Run& run) {
  std::string detail = run.reason;
  if (detail.empty()) {
    detail = run.call + (run.call.empty() || run.valueName.empty() ? "" : " ") + run.valueName;
  }
  for (const auto& [name, uses] : run.waived) {
    detail += detail.empty() ? "" : ", ";
    detail +=
        fmt::format("{}{} ({})", name == run.waived.begin()->first ? "waived: " : "", name, uses);
  }
  return detail;
}

std::string outcomeDetail(const TestResult& test) {
  std::string detail = outcomeDetail(test.shown());
  if (test.runs.size() > 1) {
    detail += detail.empty() ? "" : ", ";
    detail += fmt::format("{} of {} passed", test.passedRuns(), test.runs.size());
  }
  return detail;
}

}  // namespace kestrel::run
