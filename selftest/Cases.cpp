// Whole runs: every case of selftest/cases/*.case runs in a fresh folder with a module in it, and
// what comes out is compared with the literal text of the case. A case reads:
//
//   === name
//   args: -pw 12345678 login     what kestrel is given; or
//   sh: COMMAND                  a shell command, with $KESTREL, $PTY, $SELFTEST ... (77 skips)
//   token: DIRECTIVE             of the software token (token/Config.h), any number
//   status: 1                    of the command, 0 if not said
//   --- out                      standard output, then likewise "--- err" (empty if not there) and
//   ...                          "--- calls", the software token's record (not looked at if not
//   there)
//
// In a text "..." on a line of its own stands for any lines and "[..]" for any part of a line.
// Bytes that a reader would not see are written \0 (\0*N for N of them), \xNN, \s (a blank at the
// end of a line) and \c (no newline at the end).
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace {

namespace fs = std::filesystem;

struct Case {
  std::string name, command = {}, token = {}, status = "0";
  std::map<std::string, std::vector<std::string>> texts = {};

  friend void PrintTo(const Case& one, std::ostream* stream) { *stream << one.name; }
};

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) result.push_back(line);
  return result;
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

// "[..]" is any part of the line: the parts between must follow each other, the ends must be ends.
bool lineMatches(const std::string& expected, const std::string& actual) {
  std::size_t from = 0, at = 0;
  for (std::size_t gap; (gap = expected.find("[..]", from)) != std::string::npos; from = gap + 4) {
    const std::string part = expected.substr(from, gap - from);
    const std::size_t found = actual.find(part, at);
    if (found == std::string::npos || (from == 0 && found != 0)) return false;
    at = found + part.size();
  }
  if (from == 0) return expected == actual;
  return actual.substr(at).ends_with(expected.substr(from));
}

using Line = std::vector<std::string>::const_iterator;

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

std::vector<Case> readCases() {
  std::vector<Case> cases;
  for (const auto& file : fs::directory_iterator(SELFTEST "/cases")) {
    std::vector<std::string>* text = nullptr;
    for (const std::string& line : lines(content(file.path()))) {
      const std::size_t colon = std::min(line.find(':'), line.size());
      const std::string key = line.substr(0, colon);
      const std::string value = line.substr(std::min(colon + 2, line.size()));
      if (line.starts_with("=== ")) {
        cases.push_back({.name = file.path().stem().string() + "_" + line.substr(4)});
        cases.back().texts["err"];
        text = nullptr;
      } else if (line.starts_with("--- ")) {
        text = &cases.back().texts[line.substr(4)];
      } else if (text != nullptr) {
        text->push_back(line);
      } else if (key == "args") {
        cases.back().command = "\"$KESTREL\" " + value;
      } else if (key == "sh") {
        cases.back().command += value + "\n";
      } else if (key == "token") {
        cases.back().token += value + "\n";
      } else if (key == "status") {
        cases.back().status = value;
      } else if (!line.empty() && line[0] != '#') {
        throw std::runtime_error(file.path().string() + ": what is '" + line + "'?");
      }
    }
  }
  for (Case& one : cases) {
    // Blank lines and comments before the next case belong to the file, not to the text.
    for (auto& [name, text] : one.texts) {
      while (!text.empty() && text.back().starts_with("# ")) text.pop_back();
      if (!text.empty() && text.back().empty()) text.pop_back();
    }
  }
  return cases;
}

class Cases : public testing::TestWithParam<Case> {};

TEST_P(Cases, Run) {
  const Case& one = GetParam();
  std::string folder = fs::temp_directory_path() / "kestrel-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  std::ofstream(folder + "/.sh") << one.command;
  setenv("KESTREL_TOKEN", (one.token + "log=.calls").c_str(), 1);
  const std::string run = "cd " + folder +
                          " && . " ENVIRONMENT
                          " && timeout -k 5 60 sh ./.sh > .out 2> .err < /dev/null";
  const int result = std::system(run.c_str());
  std::map<std::string, std::string> shown;
  for (const char* name : {"out", "err", "calls"})
    shown[name] = visible(content(folder + "/." + name));
  std::error_code ignored;  // somebody may still be removing files of his own
  fs::remove_all(folder, ignored);

  const int status = WIFEXITED(result) ? WEXITSTATUS(result) : 1000 + WTERMSIG(result);
  if (status == 77) GTEST_SKIP() << shown["err"];
  EXPECT_EQ(std::to_string(status), one.status);
  for (const auto& [name, expected] : one.texts) {
    const std::vector<std::string> actual = lines(shown[name]);
    EXPECT_TRUE(textMatches(expected.begin(), expected.end(), actual.begin(), actual.end()))
        << one.name << ": this is not the '" << name << "' of the case:\n"
        << shown[name];
  }
}

INSTANTIATE_TEST_SUITE_P(Kestrel, Cases, testing::ValuesIn(readCases()),
                         [](const auto& one) { return one.param.name; });

}  // namespace
