#include "run/write/Markdown.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "common/FitText.h"
#include "common/Lines.h"

namespace kestrel::run {

namespace {

bool isWordCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) || character == '_';
}

// Text of a module or an operator without a meaning of its own; the names of calls and values in it
// as code.
std::string escaped(const std::string& bytes) {
  const std::string text = visible(bytes);
  std::string result;
  for (std::string_view rest = text; !rest.empty();) {
    const auto end = std::find_if_not(rest.begin(), rest.end(), isWordCharacter);
    const std::string_view word = rest.substr(0, static_cast<std::size_t>(end - rest.begin()));
    if (word.starts_with("C_") || word.starts_with("CKR_") || word.starts_with("CKM_")) {
      result += fmt::format("`{}`", word);
      rest.remove_prefix(word.size());
      continue;
    }
    for (const char character : rest.substr(0, std::max<std::size_t>(word.size(), 1))) {
      if (std::string_view("\\`*_{}[]<>#|&~!@").find(character) != std::string_view::npos) {
        result += '\\';
      }
      result += character;
    }
    rest.remove_prefix(std::max<std::size_t>(word.size(), 1));
  }
  return result;
}

std::string cell(const TestResult* test) {
  if (test == nullptr) return "";
  std::string detail = escaped(outcomeDetail(*test));
  const Outcome outcome = test->shown().outcome;
  // The call and its value say that it failed.
  if (outcome == Outcome::failed && detail.starts_with('`')) return detail;
  return outcomeName(outcome) + (detail.empty() ? "" : ", " + detail);
}

std::string changeItem(const Change& change) {
  std::string item = fmt::format("\n- {}: {}, {}\n\n", escaped(change.module), escaped(change.test),
                                 changeName(change.kind));
  // Code by its indent: a fence could be closed by what stands in it.
  for (std::string_view rest = change.difference; !rest.empty();) {
    item += fmt::format("      {}\n", visible(withoutEnd(takeLine(rest))));
  }
  return item;
}

}  // namespace

std::string toMarkdown(const Results& results) {
  std::string head = "| |", rule = "|---|";
  for (const ModuleResult& module : results.modules) {
    head += fmt::format(" {} |", escaped(module.name));
    rule += "---|";
  }
  std::string text = head + "\n" + rule + "\n";
  for (const std::string& name : results.testNames()) {
    text += fmt::format("| `{}` |", name);
    for (const ModuleResult& module : results.modules) {
      text += fmt::format(" {} |", cell(module.find(name)));
    }
    text += "\n";
  }
  for (const ModuleResult& module : results.modules) {
    for (const std::string& line : describe(module.facts)) {
      text += fmt::format("\n- {}: {}", escaped(module.name), escaped(line));
    }
    if (!describe(module.facts).empty()) text += "\n";
  }
  if (!results.options.empty()) {
    text += fmt::format("\nWith {}\n", escaped(fmt::format("{}", fmt::join(results.options, " "))));
  }
  if (results.interrupted) text += "\nInterrupted: what is missing was not run.\n";
  if (results.changes) text += fmt::format("\n{}\n", escaped(comparison(results)));
  for (const std::string& words : results.otherOptions) {
    text += fmt::format("\nOptions differ, {}\n", escaped(words));
  }
  for (const Change& change : results.everyChange()) {
    if (!change.difference.empty()) text += changeItem(change);
  }
  return text;
}

}  // namespace kestrel::run
