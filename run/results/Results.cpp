#include "run/results/Results.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

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

std::vector<std::string> Results::testNames() const {
  std::vector<std::string> names;
  for (const ModuleResult& module : modules) {
    for (const TestResult& test : module.tests) {
      if (std::find(names.begin(), names.end(), test.name) == names.end()) {
        names.push_back(test.name);
      }
    }
  }
  return names;
}

bool Results::allPassed() const {
  const auto passed = [](const TestResult& test) {
    return !test.runs.empty() && test.passedRuns() == test.runs.size();
  };
  return !interrupted && !modules.empty() &&
         std::all_of(modules.begin(), modules.end(), [&](const ModuleResult& module) {
           return !module.tests.empty() &&
                  std::all_of(module.tests.begin(), module.tests.end(), passed);
         });
}

bool Results::acceptable() const {
  if (!changes) return allPassed();
  return !interrupted && std::none_of(changes->begin(), changes->end(), [](const Change& change) {
    return change.kind == Change::broken || change.kind == Change::changed;
  });
}

const char* changeName(Change::Kind kind) {
  switch (kind) {
    case Change::same:
      return "same";
    case Change::fixed:
      return "fixed";
    case Change::broken:
      return "broken";
    case Change::changed:
      return "changed";
  }
  return "unknown";
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
