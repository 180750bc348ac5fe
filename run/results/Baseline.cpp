#include "run/results/Baseline.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "common/FitText.h"
#include "common/Lines.h"
#include "common/Numbers.h"
#include "harness/Tests.h"
#include "run/judge/Phrases.h"
#include "run/judge/Transcript.h"
#include "run/results/Difference.h"

namespace kestrel::run {

namespace {

// "Handle: 10" as "Handle: N".
std::string withoutNumbers(std::string_view line) {
  std::string text;
  for (const char character : line) {
    if (!std::isdigit(static_cast<unsigned char>(character))) {
      text += character;
    } else if (!text.ends_with('N')) {
      text += 'N';
    }
  }
  return text;
}

// The lines of waitTest, which come as often as time allows.
bool isCount(std::string_view line) {
  for (const std::string_view start : {phrase::round, phrase::poll}) {
    if (line.starts_with(start) && readNumber<std::uint64_t>(line.substr(start.size())))
      return true;
  }
  return false;
}

// What a new release of the library, of OpenSSL or a new card changes, and no behaviour does.
std::string withoutFacts(const std::string& report) {
  std::string result;
  for (std::string_view rest = report; !rest.empty();) {
    const std::string_view line = takeLine(rest);
    const auto* const fact = std::ranges::find_if(
        phrase::facts, [&](std::string_view start) { return line.starts_with(start); });
    result += fact == phrase::facts.end() ? line : *fact;
  }
  return result;
}

// The end of a report that is there no more, as one line.
std::string withoutTail(const std::string& difference) {
  constexpr std::size_t few = 3;   // lines that say more themselves
  std::string kept, block, added;  // what comes before the last lines that changed, and these
  std::size_t removed = 0;
  for (std::string_view rest = difference; !rest.empty();) {
    const std::string_view line = takeLine(rest);
    const bool changes = line.starts_with('-') || line.starts_with('+');
    if (!changes) {
      kept += block;
      block.clear();
      added.clear();
      removed = 0;
    }
    (changes ? block : kept) += line;
    if (line.starts_with('+')) added += line;
    removed += line.starts_with('-');
  }
  if (removed <= few) return difference;
  return fmt::format("{}-({} lines, to the end)\n{}", kept, removed, added);
}

std::string describe(const TestResult& test) {
  const std::string detail = outcomeDetail(test);
  return visible(outcomeName(test.shown().outcome) + (detail.empty() ? "" : ", " + detail)) + "\n";
}

Change compareTests(const TestResult& before, const TestResult& now) {
  const Run &old = before.shown(), &fresh = now.shown();
  const bool passedBefore = old.outcome == Outcome::passed;
  const bool passesNow = fresh.outcome == Outcome::passed;
  const std::string oldReport = comparable(old.report), freshReport = comparable(fresh.report);
  std::string difference = unifiedDiff(oldReport, freshReport);
  const Test* const test = findTest(now.name);
  const bool endless = test != nullptr && test->is(Test::endless);
  // How many of the repetitions passed is chance, as are the numbers of a test of waiting.
  const auto detail = [&](const Run& run) {
    const std::string text = validUtf8(outcomeDetail(run));
    return endless ? withoutNumbers(text) : text;
  };
  const bool alike = old.outcome == fresh.outcome && validUtf8(old.call) == validUtf8(fresh.call) &&
                     detail(old) == detail(fresh) &&
                     withoutFacts(oldReport) == withoutFacts(freshReport);
  if (!passesNow) difference = withoutTail(difference);
  Change change;
  if (alike) {
    change.difference = std::move(difference);
    return change;
  }
  change.kind = passedBefore == passesNow ? Change::changed
                : passesNow               ? Change::fixed
                                          : Change::broken;
  change.difference = "--- " + describe(before) + "+++ " + describe(now) + difference;
  return change;
}

// The module of `other` that belongs to a module of `own`; null if there is none. Names of a file
// are in valid UTF-8.
const ModuleResult* counterpart(const Results& other, const Results& own,
                                const ModuleResult& module) {
  if (other.modules.size() == 1 && own.modules.size() == 1) return &other.modules.front();
  const auto found = std::find_if(
      other.modules.begin(), other.modules.end(),
      [&](const ModuleResult& each) { return validUtf8(each.name) == validUtf8(module.name); });
  return found == other.modules.end() ? nullptr : &*found;
}

}  // namespace

std::string comparable(const std::string& report) {
  const std::string text = visible(report, Lines::kept);
  std::string result;
  bool signature = false;  // the lines are those of a signature's dump
  std::size_t bytes = 0;   // of it so far
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = takeLine(rest), content = withoutEnd(line);
    const auto dump = signature ? readDumpLine(content) : std::nullopt;
    if (dump && dump->offset + dump->bytes.size() != 0) {
      bytes = dump->offset + dump->bytes.size();
      continue;
    }
    if (signature && bytes != 0) result += fmt::format("(signature of {} bytes)\n", bytes);
    signature = content == phrase::signatureDump;
    bytes = 0;
    if (isCount(content)) continue;
    if (content.starts_with(phrase::version)) {
      result += "kestrel version\n";
    } else if (content.starts_with(phrase::keyHandles)) {
      result += withoutNumbers(line);
    } else {
      result += line;
    }
  }
  if (bytes != 0) result += fmt::format("(signature of {} bytes)\n", bytes);
  return result;
}

std::vector<Change> compare(const Results& before, const Results& now) {
  std::vector<Change> changes;
  const auto add = [&](Change change, const ModuleResult& module, const TestResult& test) {
    change.module = module.name;
    change.test = test.name;
    changes.push_back(std::move(change));
  };
  for (const ModuleResult& module : now.modules) {
    const ModuleResult* old = counterpart(before, now, module);
    for (const TestResult& test : module.tests) {
      const TestResult* oldTest = old != nullptr ? old->find(test.name) : nullptr;
      add(oldTest != nullptr ? compareTests(*oldTest, test)
                             : Change{Change::changed, {}, {}, "not in the earlier run\n"},
          module, test);
    }
  }
  for (const ModuleResult& module : before.modules) {
    const ModuleResult* fresh = counterpart(now, before, module);
    for (const TestResult& test : module.tests) {
      if (fresh != nullptr && fresh->find(test.name) != nullptr) continue;
      add({Change::changed, {}, {}, "only in the earlier run\n"},
          fresh != nullptr ? *fresh : module, test);
    }
  }
  return changes;
}

}  // namespace kestrel::run
