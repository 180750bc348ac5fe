#include "run/write/Json.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "common/FitText.h"

namespace kestrel::run {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* format = "kestrel-run results";
constexpr unsigned version = 1;

Json fromCalls(const std::vector<ReportedCall>& calls) {
  Json list = Json::array();
  for (const ReportedCall& call : calls) {
    list.push_back({{"name", validUtf8(call.name)},
                    {"passed", call.passed},
                    {"value", call.value},
                    {"value_name", validUtf8(call.valueName)}});
  }
  return list;
}

Json fromTimes(const std::vector<FunctionTime>& times) {
  Json list = Json::array();
  for (const FunctionTime& time : times) {
    list.push_back({{"function", validUtf8(time.name)},
                    {"count", time.count},
                    {"median_us", time.median},
                    {"largest_us", time.largest}});
  }
  return list;
}

Json fromRun(const Run& run) {
  Json waived = Json::object();
  for (const auto& [name, uses] : run.waived) waived[validUtf8(name)] = uses;
  return {{"outcome", outcomeName(run.outcome)},
          {"reason", validUtf8(run.reason)},
          {"call", validUtf8(run.call)},
          {"value", run.value ? Json(*run.value) : Json()},
          {"value_name", validUtf8(run.valueName)},
          {"seconds", run.seconds},
          {"exit_status", run.exitStatus},
          {"verified", run.verified},
          {"unchecked", run.unchecked},
          {"waived", waived},
          {"times", fromTimes(run.times)},
          {"calls", fromCalls(run.calls)},
          {"cut", run.cut},
          {"alike", run.alike},
          {"report", validUtf8(run.report)},
          {"errors", validUtf8(run.errors)}};
}

Json fromTest(const TestResult& test) {
  Json runs = Json::array();
  for (const Run& run : test.runs) runs.push_back(fromRun(run));
  return {{"name", validUtf8(test.name)},
          {"outcome", outcomeName(test.shown().outcome)},
          {"detail", validUtf8(outcomeDetail(test))},
          {"seconds", test.seconds()},
          {"passed_runs", test.passedRuns()},
          {"known", validUtf8(test.known)},
          {"runs", std::move(runs)}};
}

Json fromModule(const ModuleResult& module) {
  Json tests = Json::array();
  for (const TestResult& test : module.tests) tests.push_back(fromTest(test));
  return {{"name", validUtf8(module.name)},
          {"path", validUtf8(module.path)},
          {"facts", Json::parse(toJson(module.facts))},
          {"tests", std::move(tests)}};
}

Json fromTexts(const std::vector<std::string>& texts) {
  Json list = Json::array();
  for (const std::string& text : texts) list.push_back(validUtf8(text));
  return list;
}

Json fromChanges(const std::vector<Change>& changes) {
  Json list = Json::array();
  for (const Change& change : changes) {
    list.push_back({{"module", validUtf8(change.module)},
                    {"test", validUtf8(change.test)},
                    {"change", changeName(change.kind)},
                    {"difference", validUtf8(change.difference)}});
  }
  return list;
}

// One value of a file that may hold anything: every step into it says what it expected and where.
class Node {
 public:
  Node(const Json& json, std::string path) : json_(json), path_(std::move(path)) {}

  Node operator[](const char* key) const {
    const auto found = json_.is_object() ? json_.find(key) : json_.end();
    if (found == json_.end()) fail(fmt::format("has no \"{}\"", key));
    return {*found, path_ + "." + key};
  }

  bool has(const char* key) const { return json_.is_object() && json_.contains(key); }

  std::string text() const {
    return json_.is_string() ? json_.get<std::string>() : fail("is no text");
  }

  bool flag() const {
    if (!json_.is_boolean()) fail("is neither true nor false");
    return json_.get<bool>();
  }

  double fraction() const {
    if (!json_.is_number()) fail("is no number");
    return json_.get<double>();
  }

  template <typename Integer>
  Integer number() const {
    // A negative number is the one kind of integer that the library does not call unsigned.
    const bool fits =
        json_.is_number_unsigned()
            ? json_.get<std::uint64_t>() <= std::uint64_t(std::numeric_limits<Integer>::max())
            : std::is_signed_v<Integer> && json_.is_number_integer() &&
                  json_.get<std::int64_t>() >= std::int64_t(std::numeric_limits<Integer>::min());
    if (!fits) fail("is no whole number of its range");
    return json_.get<Integer>();
  }

  std::string dump() const { return json_.dump(); }

  bool isNull() const { return json_.is_null(); }

  // Calls `take` with each element.
  template <typename Take>
  void each(Take take) const {
    if (!json_.is_array()) fail("is no list");
    for (std::size_t i = 0; i < json_.size(); ++i) {
      take(Node(json_[i], fmt::format("{}[{}]", path_, i)));
    }
  }

  // Calls `take` with the name and the value of each member.
  template <typename Take>
  void eachMember(Take take) const {
    if (!json_.is_object()) fail("is no object");
    for (const auto& [name, value] : json_.items()) take(name, Node(value, path_ + "[]"));
  }

  [[noreturn]] std::string fail(const std::string& what) const {
    throw std::runtime_error(fmt::format("damaged: \"{}\" {}", path_, what));
  }

 private:
  const Json& json_;
  std::string path_;
};

Outcome toOutcome(const Node& node) {
  const std::string name = node.text();
  const auto* row = std::ranges::find(outcomeRows, name, &OutcomeRow::name);
  if (row == outcomeRows.end()) node.fail("is no outcome");
  return row->outcome;
}

Run toRun(const Node& node) {
  Run run;
  run.outcome = toOutcome(node["outcome"]);
  run.reason = node["reason"].text();
  run.call = node["call"].text();
  if (!node["value"].isNull()) run.value = node["value"].number<std::uint32_t>();
  run.valueName = node["value_name"].text();
  run.seconds = node["seconds"].fraction();
  run.exitStatus = node["exit_status"].number<int>();
  run.verified = node["verified"].number<std::size_t>();
  run.unchecked = node["unchecked"].number<std::size_t>();
  node["waived"].eachMember([&](const std::string& name, const Node& uses) {
    run.waived[name] = uses.number<std::size_t>();
  });
  node["times"].each([&](const Node& time) {
    run.times.push_back({time["function"].text(), time["count"].number<std::size_t>(),
                         time["median_us"].number<std::uint64_t>(),
                         time["largest_us"].number<std::uint64_t>()});
  });
  node["calls"].each([&](const Node& call) {
    run.calls.push_back({call["name"].text(), call["passed"].flag(),
                         call["value"].number<std::uint32_t>(), call["value_name"].text()});
  });
  run.cut = node["cut"].flag();
  run.alike = node.has("alike") && node["alike"].flag();  // a release before had none
  run.report = node["report"].text();
  run.errors = node["errors"].text();
  return run;
}

TestResult toTest(const Node& node) {
  TestResult test{node["name"].text(), {}};
  node["runs"].each([&](const Node& run) { test.runs.push_back(toRun(run)); });
  if (test.runs.empty()) node.fail("was not run");
  return test;
}

}  // namespace

std::string toJson(const Results& results) {
  Json modules = Json::array();
  for (const ModuleResult& module : results.modules) modules.push_back(fromModule(module));
  Json json = {{"format", format},
               {"version", version},
               {"kestrel", validUtf8(results.kestrelVersion)},
               {"started", validUtf8(results.started)},
               {"interrupted", results.interrupted},
               {"passed", results.acceptable()},
               {"options", fromTexts(results.options)},
               {"modules", std::move(modules)}};
  if (results.changes) {
    json["against"] = validUtf8(results.against);
    json["changes"] = fromChanges(*results.changes);
  }
  return json.dump(1) + "\n";
}

Results fromJson(const std::string& text) {
  const Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) throw std::runtime_error("no JSON, or not all of it");
  const Node root(json, "results");
  if (!json.is_object() || json.value("format", Json()) != format) {
    throw std::runtime_error("no results of kestrel-run");
  }
  if (root["version"].number<unsigned>() > version) {
    throw std::runtime_error("written by a newer kestrel-run");
  }
  Results results;
  results.kestrelVersion = root["kestrel"].text();
  results.started = root["started"].text();
  results.interrupted = root["interrupted"].flag();
  // Those of a release before had none.
  if (root.has("options")) {
    root["options"].each([&](const Node& word) { results.options.push_back(word.text()); });
  }
  root["modules"].each([&](const Node& node) {
    ModuleResult module{node["name"].text(), node["path"].text(), {}};
    if (node.has("facts")) module.facts = factsFromJson(node["facts"].dump());
    node["tests"].each([&](const Node& test) { module.tests.push_back(toTest(test)); });
    results.modules.push_back(std::move(module));
  });
  return results;
}

}  // namespace kestrel::run
