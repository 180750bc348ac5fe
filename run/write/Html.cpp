#include "run/write/Html.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <sstream>

#include "run/write/HtmlDetails.h"
#include "run/write/HtmlParts.h"

namespace kestrel::run {

namespace {

using namespace html;

constexpr const char* htmlStyle =
#include "HtmlStyle.inc"
    ;

// "2026-11-22 10:00:00 +01:00" of "2026-11-22T10:00:00+01:00".
std::string readableTime(std::string time) {
  constexpr std::size_t day = 10, second = 19;
  if (time.size() <= second || time[day] != 'T') return time;
  time[day] = ' ';
  return time.insert(second, 1, ' ');
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
  add(changes, "li", "", fmt::format("Against {}:", results.against));
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
  for (const std::string& option : results.options) add(header, "p", "soft", option);
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
  addChangeBadge(link, results.findChange(module.name, name));
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
