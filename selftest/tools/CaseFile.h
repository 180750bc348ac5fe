// The cases of selftest/cases, in the language that selftest/README.md describes.
#pragma once

#include <map>
#include <ostream>

#include "selftest/tools/CaseText.h"

struct Text {
  Lines lines = {};
  std::vector<int> numbers = {};  // where each stands in its file

  void add(const std::string& line, int number) {
    lines.push_back(line);
    numbers.push_back(number);
  }
};

struct Case {
  std::string name;
  std::string file;
  int line;                                // of the name
  std::map<std::string, Text> texts = {};  // by heading; also "sh", "token" and "status"

  friend void PrintTo(const Case& one, std::ostream* stream) { *stream << one.name; }
};

// Repetitions and pieces are written out in them.
std::vector<Case> readCases();
