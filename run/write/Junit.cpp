#include "run/write/Junit.h"

#include <fmt/format.h>

#include <numeric>
#include <pugixml.hpp>
#include <sstream>
#include <string_view>

#include "common/FitText.h"

namespace kestrel::run {

namespace {

constexpr std::size_t reportEnd = 8000;  // bytes of a report that explain a failure

JunitKind kindOf(const TestResult& test) {
  return rowOf(test.shown().outcome).junit;
}

struct Totals {
  std::size_t tests = 0, skipped = 0, failures = 0, errors = 0;
  double seconds = 0;

  void add(const TestResult& test) {
    const JunitKind kind = kindOf(test);
    ++tests;
    skipped += kind == JunitKind::skipped;
    failures += kind == JunitKind::failure;
    errors += kind == JunitKind::error;
    seconds += test.seconds();
  }

  void write(pugi::xml_node node) const {
    node.append_attribute("tests") = tests;
    node.append_attribute("failures") = failures;
    node.append_attribute("errors") = errors;
    node.append_attribute("time") = fmt::format("{:.3f}", seconds).c_str();
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

void writeTest(pugi::xml_node suite, const std::string& module, const TestResult& test) {
  auto node = suite.append_child("testcase");
  node.append_attribute("classname") = visible(module).c_str();
  node.append_attribute("name") = visible(test.name).c_str();
  node.append_attribute("time") = fmt::format("{:.3f}", test.seconds()).c_str();
  constexpr const char* elements[] = {nullptr, "skipped", "failure", "error"};
  const JunitKind kind = kindOf(test);
  if (kind == JunitKind::passed) return;
  auto result = node.append_child(elements[static_cast<std::size_t>(kind)]);
  const Run& run = test.shown();
  result.append_attribute("message") = visible(outcomeDetail(test)).c_str();
  if (kind == JunitKind::skipped) return;
  result.append_attribute("type") = outcomeName(run.outcome);
  setText(result, std::string(endOf(run.report)) + std::string(endOf(run.errors)));
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
    if (change.module != module.name || change.kind == Change::same) continue;
    text += fmt::format("{}: {}\n{}\n", change.test, changeName(change.kind), change.difference);
  }
  if (!text.empty()) setText(suite.append_child("system-out"), text);
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
  results.eachTest([&](const ModuleResult&, const TestResult& test) { all.add(test); });
  for (const ModuleResult& module : results.modules) {
    Totals totals;
    for (const TestResult& test : module.tests) totals.add(test);
    auto suite = root.append_child("testsuite");
    suite.append_attribute("name") = visible(module.name).c_str();
    totals.write(suite);
    suite.append_attribute("skipped") = totals.skipped;
    // Readers of this format know no offset from UTC.
    suite.append_attribute("timestamp") = visible(results.started.substr(0, 19)).c_str();
    writeProperties(suite, results, module);
    for (const TestResult& test : module.tests) writeTest(suite, module.name, test);
    writeDifferences(suite, results, module);
  }
  all.write(root);
  std::ostringstream text;
  document.save(text, " ");
  return text.str();
}

}  // namespace kestrel::run
