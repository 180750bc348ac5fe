#include "run/results/Known.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "common/FitText.h"

namespace kestrel::run {

namespace {

constexpr char separator = '\t';
constexpr const char* none = "-";

std::string orNone(const std::string& text) {
  return text.empty() ? none : visible(text);
}

bool matches(const std::string& pattern, const std::string& text) {
  return pattern == "*" || pattern == orNone(text);
}

KnownFailure readLine(std::string_view line, const std::string& where) {
  KnownFailure known;
  for (std::string* field : {&known.module, &known.test, &known.call, &known.value}) {
    const std::size_t end = line.find(separator);
    if (end == line.npos || end == 0) {
      throw std::runtime_error(
          where + ": not of the form module, test, call, value and reason, with tabs between");
    }
    *field = line.substr(0, end);
    line.remove_prefix(end + 1);
  }
  if (line.empty()) throw std::runtime_error(where + ": no reason");
  known.reason = line;
  return known;
}

}  // namespace

std::vector<KnownFailure> readKnown(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::system_error(errno, std::generic_category(), path);
  std::vector<KnownFailure> known;
  std::string line;
  for (std::size_t number = 1; std::getline(file, line); ++number) {
    if (line.empty() || line.starts_with('#')) continue;
    known.push_back(readLine(line, fmt::format("{}:{}", path, number)));
  }
  if (file.bad()) throw std::system_error(errno, std::generic_category(), path);
  return known;
}

void markKnown(const std::vector<KnownFailure>& known, const std::string& module,
               TestResult& test) {
  const Run& run = test.shown();
  for (const KnownFailure& each : known) {
    if (!matches(each.module, module) || !matches(each.test, test.name)) continue;
    if (run.outcome == Outcome::passed) {
      test.knownPassed = true;
    } else if (matches(each.call, run.call) && matches(each.value, run.valueName)) {
      test.known = each.reason;
      return;
    }
  }
}

std::string knownLines(const Results& results) {
  std::string text = "# module\ttest\tcall\tvalue\treason\n";
  results.eachTest([&](const ModuleResult& module, const TestResult& test) {
    const Run& run = test.shown();
    if (run.outcome == Outcome::passed) return;
    const std::string reason =
        test.known.empty() ? fmt::format("{} on {}", outcomeName(run.outcome),
                                         results.started.substr(0, results.started.find('T')))
                           : test.known;
    for (const std::string& field : {visible(module.name), test.name, orNone(run.call),
                                     orNone(run.valueName), visible(reason)}) {
      text += field;
      text += separator;
    }
    text.back() = '\n';
  });
  return text;
}

}  // namespace kestrel::run
