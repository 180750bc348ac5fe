#include "run/write/Html.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <pugixml.hpp>
#include <sstream>
#include <string_view>

#include "common/FitText.h"
#include "common/Lines.h"
#include "run/judge/Phrases.h"

namespace kestrel::run {

namespace {

constexpr const char* htmlStyle =
#include "HtmlStyle.inc"
    ;

using Node = pugi::xml_node;

constexpr std::size_t longestPart = 100'000;  // bytes of either end of a report

void addText(Node node, std::string_view text, Lines lines = Lines::escaped) {
  node.append_child(pugi::node_pcdata).set_value(visible(text, lines).c_str());
}

Node add(Node parent, const char* tag, const char* style = "", std::string_view text = "") {
  Node node = parent.append_child(tag);
  if (*style != '\0') node.append_attribute("class") = style;
  if (!text.empty()) addText(node, text);
  return node;
}

// What scrolls can be reached, and scrolled, from the keyboard.
Node addScrolling(Node parent, const char* tag, const char* label) {
  Node node = add(parent, tag);
  node.append_attribute("tabindex") = "0";
  node.append_attribute("role") = "region";
  node.append_attribute("aria-label") = label;
  return node;
}

// Adds text in which long names may break behind their underscores, but for the first, as in CKR_.
void addBreakable(Node node, std::string_view text) {
  constexpr std::size_t prefix = 4;
  std::size_t start = 0, word = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    word = text[i] == ' ' ? 0 : word + 1;
    if (text[i] != '_' || word <= prefix) continue;
    addText(node, text.substr(start, i + 1 - start));
    add(node, "wbr");
    start = i + 1;
  }
  addText(node, text.substr(start));
}

std::string plural(std::size_t count, const char* thing) {
  return fmt::format("{} {}{}", count, thing, count == 1 ? "" : "s");
}

// "2026-11-22 10:00:00 +01:00" of "2026-11-22T10:00:00+01:00".
std::string readableTime(std::string time) {
  constexpr std::size_t day = 10, second = 19;
  if (time.size() <= second || time[day] != 'T') return time;
  time[day] = ' ';
  return time.insert(second, 1, ' ');
}

std::string seconds(double time) {
  return fmt::format("{:.{}f} s", time, time < 10 ? 2 : 1);
}

void addMarked(Node parent, Outcome outcome) {
  Node mark = add(parent, "span", "mark", rowOf(outcome).mark);
  mark.append_attribute("aria-hidden") = "true";
  add(parent, "strong", "", outcomeName(outcome));
}

const Change* findChange(const Results& results, const std::string& module,
                         const std::string& test) {
  const auto changes = results.everyChange();
  const auto found = std::ranges::find_if(changes, [&](const Change& change) {
    return change.module == module && change.test == test;
  });
  return found == changes.end() ? nullptr : &*found;
}

std::string badge(const char* style) {
  return fmt::format("badge {}", style);
}

void addChangeBadge(Node parent, const Change* change) {
  if (change == nullptr || change->kind == Change::same) return;
  const char* const name = changeName(change->kind);
  add(parent, "span", badge(name).c_str(), name);
}

// Where the details of a test are on the page.
std::string anchor(std::size_t module, const std::string& test) {
  return fmt::format("{}-{}", module + 1, visible(test));
}

// --- the head of the page ---

std::string verdict(const Results& results) {
  const OutcomeCounts counts = results.countOutcomes();
  const std::size_t tests = std::accumulate(counts.begin(), counts.end(), std::size_t{0});
  const std::size_t passed = counts[static_cast<std::size_t>(Outcome::passed)];
  if (tests == 0) return "Nothing was run";
  if (passed == tests) return fmt::format("All {} tests passed", tests);
  return fmt::format("{} of {} passed", passed, plural(tests, "test"));
}

void addCounts(Node body, const Results& results) {
  const OutcomeCounts counts = results.countOutcomes();
  Node list = add(body, "ul", "counts");
  for (const OutcomeRow& row : outcomeRows) {
    const std::size_t count = counts[static_cast<std::size_t>(row.outcome)];
    if (count == 0) continue;
    add(list, "li", row.style, fmt::format("{} {} {}", row.mark, count, row.name));
  }
  if (!results.changes) return;
  Node changes = add(body, "ul", "counts");
  add(changes, "li", "", "Since the baseline:");
  for (const auto kind : {Change::same, Change::fixed, Change::broken, Change::changed}) {
    const auto count = std::count_if(results.changes->begin(), results.changes->end(),
                                     [&](const Change& change) { return change.kind == kind; });
    if (count == 0) continue;
    add(changes, "li", changeName(kind), fmt::format("{} {}", count, changeName(kind)));
  }
}

void addHead(Node body, const Results& results) {
  double time = 0;
  results.eachTest([&](const ModuleResult&, const TestResult& test) { time += test.seconds(); });
  Node header = add(body, "header");
  add(header, "h1", "", verdict(results));
  add(header, "p", "soft",
      fmt::format("kestrel {} · {} · {} · {}", results.kestrelVersion,
                  readableTime(results.started), plural(results.modules.size(), "module"),
                  seconds(time)));
  if (results.interrupted) add(header, "p", "", "Interrupted: what is missing was not run.");
  addCounts(header, results);
}

// --- the table ---

void addCell(Node row, const Results& results, std::size_t index, const std::string& name) {
  const ModuleResult& module = results.modules[index];
  const TestResult* test = module.find(name);
  if (test == nullptr) {
    add(row, "td", "notrun", "–");
    return;
  }
  const Outcome outcome = test->shown().outcome;
  Node cell = add(row, "td", rowOf(outcome).style);
  Node link = add(cell, "a");
  link.append_attribute("href") = fmt::format("#{}", anchor(index, name)).c_str();
  addMarked(link, outcome);
  const std::string detail = outcomeDetail(*test);
  if (!detail.empty()) addBreakable(add(link, "small"), detail);
  addChangeBadge(link, findChange(results, module.name, name));
}

void addTable(Node body, const Results& results) {
  Node frame = addScrolling(add(body, "section"), "div", "Tests and modules");
  frame.append_attribute("class") = "scroll";
  Node table = add(frame, "table", "results");
  Node head = add(add(table, "thead"), "tr");
  add(head, "th", "", "Test").append_attribute("scope") = "col";
  for (const ModuleResult& module : results.modules) {
    add(head, "th", "", module.name).append_attribute("scope") = "col";
  }
  Node rows = add(table, "tbody");
  for (const std::string& name : results.testNames()) {
    Node row = add(rows, "tr");
    add(row, "th", "name", name).append_attribute("scope") = "row";
    for (std::size_t i = 0; i < results.modules.size(); ++i) addCell(row, results, i, name);
  }
}

// --- one test ---

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
  const Change* change = findChange(results, results.modules[index].name, test.name);
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

void addModule(Node body, const Results& results, std::size_t index) {
  const ModuleResult& module = results.modules[index];
  Node section = add(body, "section");
  add(section, "h2", "", module.name);
  add(section, "p", "path soft", module.path);
  for (const TestResult& test : module.tests) addTest(section, results, index, test);
}

// The tests that are gone since the baseline have no place in the table.
void addMissing(Node body, const Results& results) {
  Node list;
  for (const Change& change : results.everyChange()) {
    const auto module =
        std::find_if(results.modules.begin(), results.modules.end(),
                     [&](const ModuleResult& each) { return each.name == change.module; });
    if (module != results.modules.end() && module->find(change.test) != nullptr) continue;
    if (!list) {
      Node section = add(body, "section");
      add(section, "h2", "", "In the baseline only");
      list = add(section, "ul");
    }
    add(list, "li", "", change.module + ", " + change.test);
  }
}

std::string headOfPage(const Results& results) {
  return fmt::format(R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy"
  content="default-src 'none'; style-src 'unsafe-inline'; img-src data:">
<link rel="icon" href="data:,">
<title>kestrel-run: {}</title>
<style>{}</style>
</head>
)",
                     verdict(results), htmlStyle);
}

// As HTML wants it: an empty element has an end tag, but for the one kind here that has none.
std::string bodyText(const pugi::xml_document& body) {
  std::ostringstream stream;
  body.save(stream, "",
            pugi::format_raw | pugi::format_no_declaration | pugi::format_no_empty_element_tags);
  std::string text = stream.str();
  constexpr std::string_view pair = "<wbr></wbr>", single = "<wbr/>";
  for (std::size_t at = 0; (at = text.find(pair, at)) != text.npos;) {
    text.replace(at, pair.size(), single);
  }
  return text;
}

}  // namespace

std::string toHtml(const Results& results) {
  pugi::xml_document document;
  Node body = add(document, "body");
  addHead(body, results);
  Node main = add(body, "main");
  addTable(main, results);
  addMissing(main, results);
  for (std::size_t i = 0; i < results.modules.size(); ++i) addModule(main, results, i);
  return headOfPage(results) + bodyText(document) + "\n</html>\n";
}

}  // namespace kestrel::run
