// Whole runs: every case of selftest/cases runs in a fresh folder with a module in it, and what
// comes out is compared with the literal text of the case.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "selftest/tools/CaseFile.h"

namespace {

namespace fs = std::filesystem;
using Shown = std::map<std::string, Lines>;  // by heading

std::string content(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// One run of a case, with more directives for its token: what came out.
Shown runOf(const Case& one, const std::string& directives) {
  std::string folder = fs::temp_directory_path() / "kestrel-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder to run in");
  std::ofstream(folder + "/.sh") << joined(one.texts.at("sh").lines);
  const std::string token = joined(one.texts.at("token").lines) + directives + "\nlog=.calls";
  setenv("KESTREL_TOKEN", token.c_str(), 1);
  const std::string command = "cd " + folder +
                              " && exec sh " SELFTEST
                              "/tools/plain.sh KESTREL_TOKEN=\"$KESTREL_TOKEN\" "
                              "THROUGH_SHIM=\"$THROUGH_SHIM\" sh -c '. " ENVIRONMENT
                              " && exec timeout -k 5 100 sh ./.sh' > .out 2> .err < /dev/null";
  const int result = std::system(command.c_str());
  Shown shown;
  shown["status"] = {
      std::to_string(WIFEXITED(result) ? WEXITSTATUS(result) : 1000 + WTERMSIG(result))};
  for (const char* name : {"out", "err", "calls"})
    shown[name] = lines(visible(content(folder + "/." + name)));
  std::error_code ignored;  // somebody may still be removing files of his own
  fs::remove_all(folder, ignored);
  return shown;
}

// The function that the last of some directives names, as in "C_Sign#2=5" and "null=C_Sign".
std::string functionOf(const std::string& directive) {
  const std::string name = directive.substr(std::min(directive.find("C_"), directive.size()));
  return name.substr(0, name.find_first_of("#.="));
}

// Is the last call the one that a directive means: the N-th, or the first?
bool endsAtItsCall(const std::string& directive, const Lines& calls) {
  const std::string number = split(directive, "#").second;
  const auto isCall = [&](const std::string& line) {
    return words(line)[0] == functionOf(directive);
  };
  return !directive.starts_with("C_") || (!calls.empty() && isCall(calls.back()) &&
                                          std::count_if(calls.begin(), calls.end(), isCall) ==
                                              (number.empty() ? 1 : std::stol(number)));
}

// A row of "--- ends" with one word for each of its braces.
struct Variant {
  const Case& one;
  int line;
  std::string directives, end;
};

void tryVariant(const Variant& variant) {
  const std::string directive = variant.directives.substr(variant.directives.rfind(';') + 1);
  const auto [expected, error] = split(replaced(variant.end, "%", functionOf(directive)), " | ");
  const auto [status, last] = split(expected, " ");
  const bool anywhere = last.starts_with("... ");

  Shown shown = runOf(variant.one, variant.directives);
  Lines& out = shown["out"];
  const Lines end(out.empty() ? out.end() : out.end() - 1, out.end());
  shown["err"].resize(1);
  std::string differences =
      difference({status}, shown["status"]) +
      (anywhere ? difference({"...", last.substr(4), "..."}, out) : difference({last}, end)) +
      difference({error}, shown["err"]);
  if (last.starts_with("!!!") && !endsAtItsCall(directive, shown["calls"]))
    differences += "not at that call, but here:\n" + joined(shown["calls"]);
  if (!differences.empty())
    ADD_FAILURE_AT(variant.one.file.c_str(), variant.line)
        << variant.one.name << " with " << variant.directives << ":\n"
        << differences;
}

void tryRow(const Variant& row) {
  const std::string choices = split(split(row.directives, "{").second, "}").first;
  if (choices.empty()) return tryVariant(row);
  for (const std::string& choice : words(choices))
    tryRow({row.one, row.line, replaced(row.directives, "{" + choices + "}", choice), row.end});
}

void tryRows(const Case& one, const Text& rows) {
  std::string row;
  int line = 0;
  for (std::size_t i = 0; i < rows.lines.size(); ++i) {
    if (row.empty()) line = rows.numbers[i];
    row += (row.empty() ? "" : " ") + rows.lines[i];
    const auto [directives, end] = split(row, " | ");
    if (end.empty()) continue;
    tryRow({one, line, directives, end});
    row.clear();
  }
  if (!row.empty()) ADD_FAILURE_AT(one.file.c_str(), line) << "a row without an end";
}

class Cases : public testing::TestWithParam<Case> {};

TEST_P(Cases, Run) {
  const Case& one = GetParam();
  std::map<std::string, Text> texts = one.texts;
  const Text rows = texts["ends"];
  if (rows.lines.empty() || texts.contains("out") || texts.contains("calls")) {
    Shown shown = runOf(one, "");
    if (shown["status"] == Lines{"77"}) GTEST_SKIP() << joined(shown["err"]);
    texts.emplace("status", Text{{"0"}});
    texts["err"];
    for (const char* name : {"status", "out", "err", "calls"}) {
      if (!texts.contains(name)) continue;
      const std::string differences = difference(texts[name].lines, shown[name]);
      if (!differences.empty())
        ADD_FAILURE_AT(one.file.c_str(), one.line)
            << one.name << ": " << name << " (- expected, + shown)\n"
            << differences;
    }
  }
  tryRows(one, rows);
}

INSTANTIATE_TEST_SUITE_P(Kestrel, Cases, testing::ValuesIn(readCases()),
                         [](const auto& one) { return one.param.name; });

}  // namespace
