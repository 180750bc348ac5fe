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

// An interrupt leaves nobody any the wiser. A known failure is one whatever the baseline says of
// it, and what the baseline says comes before the outcome.
Grade Results::gradeOf(const ModuleResult& module, const TestResult& test) const {
  const Outcome outcome = test.shown().outcome;
  if (interrupted && outcome == Outcome::notRun) return Grade::error;
  if (!test.known.empty()) return Grade::excused;
  const Change* const change = findChange(module.name, test.name);
  if (change == nullptr) return rowOf(outcome).grade;
  if (change->kind == Change::broken || (change->kind == Change::changed && changedFails)) {
    return Grade::failure;
  }
  return outcome == Outcome::passed ? Grade::passed : Grade::excused;
}

std::vector<const Change*> Results::goneTests() const {
  std::vector<const Change*> gone;
  for (const Change& change : everyChange()) {
    const auto module = std::ranges::find(modules, change.module, &ModuleResult::name);
    if (module == modules.end() || module->find(change.test) == nullptr) gone.push_back(&change);
  }
  return gone;
}

bool Results::acceptable() const {
  bool good = !interrupted && !modules.empty() && (goneTests().empty() || !changedFails);
  for (const ModuleResult& module : modules) good = good && !module.tests.empty();
  eachTest([&](const ModuleResult& module, const TestResult& test) {
    const Grade grade = gradeOf(module, test);
    good = good && (grade == Grade::passed || grade == Grade::excused);
  });
  return good;
}

std::string comparison(const Results& results) {
  std::string text;
  for (const auto kind : {Change::same, Change::fixed, Change::broken, Change::changed}) {
    const auto count = std::ranges::count(results.everyChange(), kind, &Change::kind);
    if (count == 0) continue;
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", count, changeName(kind));
  }
  return fmt::format("{} (against {})", text, results.against);
}

namespace {

const char* separator(const std::string& text) {
  return text.empty() ? "" : ", ";
}

}  // namespace

std::string outcomeDetail(const Run& run) {
  std::string detail = run.reason;
  if (detail.empty()) {
    detail = run.call + (run.call.empty() || run.valueName.empty() ? "" : " ") + run.valueName;
  }
  for (const auto& [name, uses] : run.waived) {
    detail += separator(detail);
    detail +=
        fmt::format("{}{} ({})", name == run.waived.begin()->first ? "waived: " : "", name, uses);
  }
  return detail;
}

std::string outcomeDetail(const TestResult& test) {
  std::string detail = outcomeDetail(test.shown());
  if (test.runs.size() > 1) {
    detail += separator(detail);
    detail += fmt::format("{} of {} passed", test.passedRuns(), test.runs.size());
  }
  if (!test.known.empty()) detail += fmt::format("{}known: {}", separator(detail), test.known);
  if (test.knownPassed) detail += fmt::format("{}a known failure before", separator(detail));
  return detail;
}

}  // namespace kestrel::run
