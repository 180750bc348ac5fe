#include "run/write/HtmlDetails.h"

#include <fmt/format.h>

#include "common/Lines.h"
#include "run/judge/Phrases.h"

namespace kestrel::run::html {

namespace {

constexpr std::size_t longestPart = 100'000;  // bytes of either end of a report

void addPre(Node body, const char* title, std::string_view text) {
  if (text.empty()) return;
  add(body, "h3", "", title);
  Node pre = addScrolling(body, "pre", title);
  std::string shortened;
  if (text.size() > 2 * longestPart) {
    shortened = fmt::format("{}\n[... {} bytes ...]\n{}", text.substr(0, longestPart),
                            text.size() - 2 * longestPart, text.substr(text.size() - longestPart));
    text = shortened;
  }
  // A line that tells of a failure stands out.
  const std::string failureLine = fmt::format("\n{}", phrase::failureStart);
  while (!text.empty()) {
    const bool failure = text.starts_with(phrase::failureStart);
    const std::size_t end = failure ? text.find('\n') : text.find(failureLine);
    const std::size_t length = end == text.npos ? text.size() : end + 1;
    addText(failure ? add(pre, "strong") : pre, text.substr(0, length), Lines::kept);
    text.remove_prefix(length);
  }
}

void addDifference(Node body, const Change& change) {
  add(body, "h3", "", fmt::format("{} since the baseline", changeName(change.kind)));
  Node pre = addScrolling(body, "pre", "Difference");
  for (std::string_view rest = change.difference; !rest.empty();) {
    const std::string_view line = takeLine(rest);
    const bool removed = line.starts_with('-'), added = line.starts_with('+');
    addText(removed ? add(pre, "del") : added ? add(pre, "ins") : pre, line, Lines::kept);
  }
}

void addFact(Node facts, const char* name, const std::string& value) {
  if (value.empty()) return;
  add(facts, "dt", "", name);
  add(facts, "dd", "", value);
}

void addFacts(Node body, const TestResult& test) {
  const Run& run = test.shown();
  Node facts = add(body, "dl");
  if (!run.call.empty()) {
    addFact(facts, "Ended in",
            run.call + (run.value ? fmt::format(": {:#x} {}", *run.value, run.valueName) : ""));
  }
  if (run.verified + run.unchecked != 0) {
    addFact(facts, "Signatures",
            fmt::format("{} verified, {} not checked", run.verified, run.unchecked));
  }
  for (const auto& [name, uses] : run.waived) {
    addFact(facts, "Waived", fmt::format("{}, {}", name, plural(uses, "time")));
  }
  if (run.exitStatus >= 0) addFact(facts, "Exit status", std::to_string(run.exitStatus));
  for (std::size_t i = 0; test.runs.size() > 1 && i < test.runs.size(); ++i) {
    const Run& each = test.runs[i];
    if (each.outcome == Outcome::passed) continue;
    const std::string detail = outcomeDetail(each);
    addFact(facts, fmt::format("Run {}", i + 1).c_str(),
            outcomeName(each.outcome) + (detail.empty() ? "" : ", " + detail));
  }
}

void addTimes(Node body, const std::vector<FunctionTime>& times) {
  if (times.empty()) return;
  add(body, "h3", "", "Time in the module");
  Node table = add(add(body, "div", "scroll"), "table", "numbers");
  Node head = add(add(table, "thead"), "tr");
  for (const char* title : {"Function", "Calls", "Median, µs", "Largest, µs"}) {
    add(head, "th", "", title).append_attribute("scope") = "col";
  }
  Node rows = add(table, "tbody");
  for (const FunctionTime& time : times) {
    Node row = add(rows, "tr");
    add(row, "th", "name", time.name).append_attribute("scope") = "row";
    for (const std::uint64_t number : {std::uint64_t{time.count}, time.median, time.largest}) {
      add(row, "td", "", std::to_string(number));
    }
  }
}

void addTest(Node section, const Results& results, std::size_t index, const TestResult& test) {
  const Run& run = test.shown();
  const Change* change = results.findChange(results.modules[index].name, test.name);
  Node details = add(section, "details");
  Node summary = add(details, "summary");
  add(summary, "span", "name", test.name);
  addMarked(add(summary, "span", badge(rowOf(run.outcome).style).c_str()), run.outcome);
  addChangeBadge(summary, change);
  const std::string detail = outcomeDetail(test);
  if (!detail.empty()) addBreakable(add(summary, "span", "detail"), detail);
  add(summary, "span", "cost soft",
      fmt::format("{} · {}", plural(run.calls.size(), "call"), seconds(test.seconds())));
  // The link of the table goes inside, which unfolds it.
  Node body = add(details, "div", "body");
  body.append_attribute("id") = anchor(index, test.name).c_str();
  addFacts(body, test);
  if (change != nullptr && change->kind != Change::same) addDifference(body, *change);
  addTimes(body, run.times);
  addPre(body, run.cut ? "Report, which was cut" : "Report", run.report);
  addPre(body, "Standard error", run.errors);
}

}  // namespace

void addModule(Node body, const Results& results, std::size_t index) {
  const ModuleResult& module = results.modules[index];
  Node section = add(body, "section");
  add(section, "h2", "", module.name);
  add(section, "p", "path soft", module.path);
  for (const std::string& line : describe(module.facts)) add(section, "p", "soft", line);
  for (const TestResult& test : module.tests) addTest(section, results, index, test);
}

}  // namespace kestrel::run::html
