// Whole runs: every case of selftest/cases/*.case runs in a fresh folder with a module in it, and
// what comes out is compared with the literal text of the case. A case reads:
//
//   === name
//   args: -pw 12345678 login     what kestrel is given; or
//   sh: COMMAND                  a shell command, with $KESTREL, $PTY, $SELFTEST ... (77 skips); if
//                                neither is said, the command of the case before it
//   token: DIRECTIVES            of the software token (token/Config.h), any number
//   status: 1                    of the command, 0 if not said
//   ...                          standard output (or under a heading, "--- out"), then likewise
//   --- err                      standard error (empty if not there) and
//   --- calls                    the software token's record (not looked at if not there);
//   --- in calls                 lines that stand somewhere in it, or "--- in out"
//   --- ends                     variants of the case, each a run of its own: more directives, and
//   {C_A C_B#2}=5 | 1 LINE       the exit status and last line of the report that they lead to
//
// In a text "..." on a line of its own stands for any lines and "[..]" for any part of a line.
// Bytes that a reader would not see are written \0 (\0*N for N of them), \xNN, \s (a blank at the
// end of a line) and \c (no newline at the end).
//
// What is said often is said once: "*3 LINE" is that line three times, "*{A B}() passed" is a line
// for A and one for B, and "@login a b" is the text that the case "=== @login", of whatever file,
// has under the same heading, with $1 and $2 for the words and $* for all of them.
//
// A row of "--- ends" is tried with each of the words in braces, with every combination of them if
// there are more; without a " | " it goes on in the next line. In the last line "%" is the function
// that the directive names; "... LINE" may stand anywhere in the report; behind one more " | "
// comes the first line on standard error. A run that ends with a failure line ("!!!") must end at
// the very call that the directive names.
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;
using Texts = std::map<std::string, Lines>;

struct Case {
  std::string name;
  Texts texts = {};  // by heading; also "sh", "token" and "status"

  friend void PrintTo(const Case& one, std::ostream* stream) { *stream << one.name; }
};

Lines lines(const std::string& text) {
  Lines result;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) result.push_back(line);
  return result;
}

std::string joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

Lines words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

// What is left and right of the first separator; all is left if there is none.
std::pair<std::string, std::string> split(const std::string& text, const std::string& separator) {
  const std::size_t at = std::min(text.find(separator), text.size());
  return {text.substr(0, at), text.substr(std::min(at + separator.size(), text.size()))};
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
    text.replace(at, what.size(), with);
  return text;
}

std::string content(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string visible(const std::string& text) {
  std::string shown;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\0') {
      const std::size_t end = std::min(text.find_first_not_of('\0', i), text.size());
      shown += end - i == 1 ? "\\0" : "\\0*" + std::to_string(end - i);
      i = end - 1;
    } else if (c == ' ' && (i + 1 == text.size() || text[i + 1] == '\n')) {
      shown += "\\s";
    } else if (c == '\n' || (c >= ' ' && c <= '~')) {
      shown += c;
    } else {
      char hex[5];
      std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
      shown += hex;
    }
  }
  return text.empty() || text.back() == '\n' ? shown : shown + "\\c";
}

// "[..]" is any part of the line.
bool lineMatches(std::string pattern, const std::string& actual) {
  for (const char* special : {"\\", "*", "?", "["})
    pattern = replaced(pattern, special, std::string("\\") + special);
  return fnmatch(replaced(pattern, "\\[..]", "*").c_str(), actual.c_str(), 0) == 0;
}

using Line = Lines::const_iterator;

bool textMatches(Line expected, Line expectedEnd, Line actual, Line actualEnd) {
  for (; expected != expectedEnd; ++expected, ++actual) {
    if (*expected == "...") {
      for (;; ++actual) {
        if (textMatches(expected + 1, expectedEnd, actual, actualEnd)) return true;
        if (actual == actualEnd) return false;
      }
    }
    if (actual == actualEnd || !lineMatches(*expected, *actual)) return false;
  }
  return actual == actualEnd;
}

bool textMatches(const Lines& expected, const Lines& actual) {
  return textMatches(expected.begin(), expected.end(), actual.begin(), actual.end());
}

// Repetitions and pieces written out. Pieces are cases whose names begin with "@".
void expand(const std::map<std::string, Texts>& pieces, const std::string& heading,
            const std::string& line, Lines& to) {
  const auto [first, rest] = split(line, " ");
  if (first[0] == '*' && std::isdigit(first[1]) != 0) {
    for (int i = std::stoi(first.substr(1)); i > 0; --i) expand(pieces, heading, rest, to);
  } else if (first.starts_with("*{")) {
    const auto [choices, behind] = split(line.substr(2), "}");
    for (const std::string& word : words(choices)) to.push_back(word + behind);
  } else if (first[0] == '@' && std::islower(first[1]) != 0) {
    const auto piece = pieces.find(first);
    if (piece == pieces.end() || !piece->second.contains(heading))
      throw std::runtime_error("what is '" + line + "' in '" + heading + "'?");
    const Lines arguments = words(rest);
    for (std::string part : piece->second.at(heading)) {
      for (std::size_t i = 0; i < arguments.size(); ++i)
        part = replaced(part, {'$', static_cast<char>('1' + i)}, arguments[i]);
      expand(pieces, heading, replaced(part, "$*", rest), to);
    }
  } else {
    to.push_back(line);
  }
}

void readFile(const fs::path& path, std::vector<Case>& cases) {
  const std::string stem = path.stem().string() + "_";
  const std::size_t first = cases.size();
  Lines* text = nullptr;
  for (const std::string& line : lines(content(path))) {
    const auto [key, value] = split(line, ": ");
    if (line.starts_with("=== ")) {
      cases.push_back({(line[4] == '@' ? "" : stem) + line.substr(4)});
      text = nullptr;
    } else if (line.starts_with("--- ")) {
      text = &cases.back().texts[line.substr(4)];
    } else if (text != nullptr) {
      text->push_back(line);
    } else if (key == "args" || key == "args:") {
      cases.back().texts["sh"] = {"\"$KESTREL\" " + value};
    } else if (key == "sh" || key == "token" || key == "status") {
      cases.back().texts[key].push_back(value);
    } else if (cases.size() > first && !line.starts_with("# ")) {
      text = &cases.back().texts["out"];
      text->push_back(line);
    }
  }
  for (std::size_t i = first; i < cases.size(); ++i) {
    if (cases[i].texts["sh"].empty() && i > first) cases[i].texts["sh"] = cases[i - 1].texts["sh"];
  }
}

std::vector<Case> readCases() {
  std::vector<Case> cases;
  for (const auto& file : fs::directory_iterator(SELFTEST "/cases")) readFile(file.path(), cases);
  std::map<std::string, Texts> pieces;
  for (Case& one : cases) {
    // Blank lines and comments before the next case belong to the file, not to the text.
    for (auto& [heading, text] : one.texts) {
      while (!text.empty() && text.back().starts_with("# ")) text.pop_back();
      if (!text.empty() && text.back().empty()) text.pop_back();
    }
    pieces[one.name] = one.texts;
  }
  std::erase_if(cases, [](const Case& one) { return one.name[0] == '@'; });
  for (Case& one : cases) {
    one.texts = {{"token", {}}};
    for (const auto& [heading, lines] : pieces[one.name]) {
      const bool within = heading.starts_with("in ");
      const std::string name = heading.substr(within ? 3 : 0);
      Lines& text = one.texts[name];
      if (within) text.push_back("...");
      for (const std::string& line : lines) expand(pieces, name, line, text);
      if (within) text.push_back("...");
    }
  }
  return cases;
}

// One run of a case, with more directives for its token: what came out, by heading.
Texts runOf(const Case& one, const std::string& directives) {
  std::string folder = fs::temp_directory_path() / "kestrel-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder to run in");
  std::ofstream(folder + "/.sh") << joined(one.texts.at("sh"));
  const std::string token = joined(one.texts.at("token")) + directives + "\nlog=.calls";
  setenv("KESTREL_TOKEN", token.c_str(), 1);
  const std::string command = "cd " + folder +
                              " && exec sh " SELFTEST
                              "/tools/plain.sh KESTREL_TOKEN=\"$KESTREL_TOKEN\" "
                              "THROUGH_SHIM=\"$THROUGH_SHIM\" sh -c '. " ENVIRONMENT
                              " && exec timeout -k 5 100 sh ./.sh' > .out 2> .err < /dev/null";
  const int result = std::system(command.c_str());
  Texts shown;
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

void tryVariant(const Case& one, const std::string& directives, const std::string& end) {
  const std::string directive = directives.substr(directives.rfind(';') + 1);
  const auto [expected, error] = split(replaced(end, "%", functionOf(directive)), " | ");
  const auto [status, last] = split(expected, " ");
  const Lines wanted =
      last.starts_with("... ") ? Lines{"...", last.substr(4), "..."} : Lines{"...", last};

  Texts shown = runOf(one, directives);
  const std::string said = shown["err"].empty() ? "" : shown["err"][0];
  EXPECT_TRUE(textMatches({status}, shown["status"]) && textMatches(wanted, shown["out"]) &&
              lineMatches(error, said) &&
              (!last.starts_with("!!!") || endsAtItsCall(directive, shown["calls"])))
      << one.name << " with " << directives << " does not end with " << end << " but with:\n"
      << joined(shown["status"]) << joined(shown["out"]) << joined(shown["err"])
      << joined(shown["calls"]);
}

// Every combination that the braces in a row of "--- ends" stand for.
void tryRow(const Case& one, const std::string& directives, const std::string& end) {
  const std::string choices = split(split(directives, "{").second, "}").first;
  if (choices.empty()) return tryVariant(one, directives, end);
  const std::string group = "{" + choices + "}";
  for (const std::string& choice : words(choices))
    tryRow(one, replaced(directives, group, choice), end);
}

class Cases : public testing::TestWithParam<Case> {};

TEST_P(Cases, Run) {
  const Case& one = GetParam();
  Texts texts = one.texts;
  const Lines rows = texts["ends"];
  if (rows.empty() || texts.contains("out") || texts.contains("calls")) {
    Texts shown = runOf(one, "");
    if (shown["status"] == Lines{"77"}) GTEST_SKIP() << joined(shown["err"]);
    texts.emplace("status", Lines{"0"});
    texts["err"];
    for (const char* name : {"status", "out", "err", "calls"}) {
      EXPECT_TRUE(!texts.contains(name) || textMatches(texts[name], shown[name]))
          << one.name << ": this is not the '" << name << "' of the case:\n"
          << joined(shown[name]);
    }
  }
  std::string row;
  for (const std::string& line : rows) {
    row += (row.empty() ? "" : " ") + line;
    const auto [directives, end] = split(row, " | ");
    if (end.empty()) continue;
    tryRow(one, directives, end);
    row.clear();
  }
  EXPECT_EQ(row, "") << "a row without an end";
}

INSTANTIATE_TEST_SUITE_P(Kestrel, Cases, testing::ValuesIn(readCases()),
                         [](const auto& one) { return one.param.name; });

}  // namespace
