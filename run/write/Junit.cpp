#include "run/write/Junit.h"

#include <fmt/format.h>

#include <algorithm>
#include <pugixml.hpp>
#include <sstream>
#include <string_view>
#include <vector>

#include "common/FitText.h"

namespace kestrel::run {

namespace {

constexpr std::size_t reportEnd = 8000;  // bytes of a report that explain a failure

struct Totals {
  std::size_t tests = 0, skipped = 0, failures = 0, errors = 0;
  double seconds = 0;

  void add(Grade grade, double time) {
    ++tests;
    skipped += grade == Grade::excused;
    failures += grade == Grade::failure;
    errors += grade == Grade::error;
    seconds += time;
  }

  void write(pugi::xml_node node) const {
    node.append_attribute("tests") = tests;
    node.append_attribute("failures") = failures;
    node.append_attribute("errors") = errors;
    node.append_attribute("time") = fmt::format("{:.3f}", seconds).c_str();
  }

  void writeSuite(pugi::xml_node suite, const std::string& name, const Results& results) const {
    suite.append_attribute("name") = visible(name).c_str();
    write(suite);
    suite.append_attribute("skipped") = skipped;
    // Readers of this format know no offset from UTC.
    suite.append_attribute("timestamp") = visible(results.started.substr(0, 19)).c_str();
  }
};

void setText(pugi::xml_node node, std::string_view text) {
  node.text() = visible(text, Lines::kept).c_str();
}

// The last lines of a report.
std::string_view endOf(std::string_view report) {
  if (report.size() <= reportEnd) return report;
  report.remove_prefix(report.size() - reportEnd);
  const std::size_t line = report.find('\n');
  return line == report.npos ? report : report.substr(line + 1);
}

pugi::xml_node addCase(pugi::xml_node suite, const std::string& module, const std::string& test,
                       double seconds) {
  auto node = suite.append_child("testcase");
  node.append_attribute("classname") = visible(module).c_str();
  node.append_attribute("name") = visible(test).c_str();
  node.append_attribute("time") = fmt::format("{:.3f}", seconds).c_str();
  return node;
}

// Why a test counts for what it does, where its outcome alone does not tell.
std::string message(const Results& results, const ModuleResult& module, const TestResult& test) {
  std::string detail = outcomeDetail(test);
  const Change* const change = results.findChange(module.name, test.name);
  if (change == nullptr || !test.known.empty()) return detail;
  return fmt::format("{} since {}: {}{}{}", changeName(change->kind), results.against,
                     outcomeName(test.shown().outcome), detail.empty() ? "" : ", ", detail);
}

void writeTest(pugi::xml_node suite, const Results& results, const ModuleResult& module,
               const TestResult& test) {
  constexpr const char* elements[] = {nullptr, "skipped", "failure", "error"};
  auto node = addCase(suite, module.name, test.name, test.seconds());
  const Grade grade = results.gradeOf(module, test);
  if (grade == Grade::passed) return;
  auto result = node.append_child(elements[static_cast<std::size_t>(grade)]);
  const Run& run = test.shown();
  result.append_attribute("message") = visible(message(results, module, test)).c_str();
  if (grade == Grade::excused) return;
  result.append_attribute("type") = outcomeName(run.outcome);
  setText(result, std::string(endOf(run.report)) + std::string(endOf(run.errors)));
}

// What the baseline alone has, of the module of a suite.
std::vector<const Change*> goneFrom(const Results& results, const ModuleResult& module) {
  std::vector<const Change*> gone = results.goneTests();
  std::erase_if(gone, [&](const Change* change) { return change->module != module.name; });
  return gone;
}

void writeGone(pugi::xml_node suite, const Results& results, const Change& change) {
  auto node = addCase(suite, change.module, change.test, 0);
  const bool fails = results.goneGrade() == Grade::failure;
  auto result = node.append_child(fails ? "failure" : "skipped");
  result.append_attribute("message") = "only in the earlier run";
  if (fails) result.append_attribute("type") = changeName(change.kind);
}

void addProperty(pugi::xml_node properties, const std::string& name, const std::string& value) {
  auto property = properties.append_child("property");
  property.append_attribute("name") = visible(name).c_str();
  property.append_attribute("value") = visible(value).c_str();
}

// What has no place in a test case: the waivers that each test used and the baseline's word on it.
void writeProperties(pugi::xml_node suite, const Results& results, const ModuleResult& module) {
  auto properties = suite.append_child("properties");
  addProperty(properties, "kestrel", results.kestrelVersion);
  addProperty(properties, "module", module.path);
  if (results.interrupted) addProperty(properties, "interrupted", "true");
  for (const TestResult& test : module.tests) {
    for (const auto& [name, uses] : test.shown().waived) {
      addProperty(properties, test.name + ".waived." + name, std::to_string(uses));
    }
  }
  for (const Change& change : results.everyChange()) {
    if (change.module != module.name) continue;
    addProperty(properties, change.test + ".baseline", changeName(change.kind));
  }
}

// The differences from the baseline.
void writeDifferences(pugi::xml_node suite, const Results& results, const ModuleResult& module) {
  std::string text;
  for (const Change& change : results.everyChange()) {
    if (change.module != module.name || change.difference.empty()) continue;
    text += fmt::format("{}: {}\n{}\n", change.test, changeName(change.kind), change.difference);
  }
  if (!text.empty()) setText(suite.append_child("system-out"), text);
}

// A module that is gone is a suite all the same.
void writeGoneModules(pugi::xml_node root, const Results& results, Totals& all) {
  std::vector<const Change*> gone = results.goneTests();
  std::erase_if(gone, [&](const Change* change) {
    return std::ranges::find(results.modules, change->module, &ModuleResult::name) !=
           results.modules.end();
  });
  while (!gone.empty()) {
    const std::string name = gone.front()->module;
    auto suite = root.append_child("testsuite");
    Totals totals;
    std::erase_if(gone, [&](const Change* change) {
      if (change->module != name) return false;
      writeGone(suite, results, *change);
      totals.add(results.goneGrade(), 0);
      all.add(results.goneGrade(), 0);
      return true;
    });
    totals.writeSuite(suite, name, results);
  }
}

}  // namespace

std::string toJunit(const Results& results) {
  pugi::xml_document document;
  auto declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  auto root = document.append_child("testsuites");
  root.append_attribute("name") = "kestrel-run";
  Totals all;
  for (const ModuleResult& module : results.modules) {
    Totals totals;
    const auto count = [&](Grade grade, double seconds) {
      totals.add(grade, seconds);
      all.add(grade, seconds);
    };
    for (const TestResult& test : module.tests)
      count(results.gradeOf(module, test), test.seconds());
    const std::vector<const Change*> gone = goneFrom(results, module);
    for (std::size_t i = 0; i < gone.size(); ++i) {
      count(results.goneGrade(), 0);
    }
    auto suite = root.append_child("testsuite");
    totals.writeSuite(suite, module.name, results);
    writeProperties(suite, results, module);
    for (const TestResult& test : module.tests) writeTest(suite, results, module, test);
    for (const Change* change : gone) writeGone(suite, results, *change);
    writeDifferences(suite, results, module);
  }
  writeGoneModules(root, results, all);
  all.write(root);
  std::ostringstream text;
  document.save(text, " ");
  return text.str();
}

}  // namespace kestrel::run
