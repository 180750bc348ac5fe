#include "selftest/tools/CaseFile.h"

#include <cctype>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;
using Pieces = std::map<std::string, std::map<std::string, Text>>;  // the texts of a case, by name

void expand(const Pieces& pieces, const std::string& heading, const std::string& line, int number,
            Text& to);

void expandPiece(const Pieces& pieces, const std::string& heading, const std::string& line,
                 int number, Text& to) {
  const auto [name, rest] = split(line, " ");
  const auto piece = pieces.find(name);
  if (piece == pieces.end() || !piece->second.contains(heading))
    throw std::runtime_error("what is '" + line + "' in '" + heading + "'?");
  const Lines arguments = words(rest);
  for (std::string part : piece->second.at(heading).lines) {
    for (std::size_t i = 0; i < arguments.size(); ++i)
      part = replaced(part, {'$', static_cast<char>('1' + i)}, arguments[i]);
    expand(pieces, heading, replaced(part, "$*", rest), number, to);
  }
}

void expand(const Pieces& pieces, const std::string& heading, const std::string& line, int number,
            Text& to) {
  const auto [first, rest] = split(line, " ");
  if (first[0] == '*' && std::isdigit(first[1]) != 0) {
    for (int i = std::stoi(first.substr(1)); i > 0; --i) expand(pieces, heading, rest, number, to);
  } else if (first.starts_with("*{")) {
    const auto [choices, behind] = split(line.substr(2), "}");
    for (const std::string& word : words(choices)) to.add(word + behind, number);
  } else if (first[0] == '@' && std::islower(first[1]) != 0) {
    expandPiece(pieces, heading, line, number, to);
  } else {
    to.add(line, number);
  }
}

// A line behind one that ends in a backslash is the rest of that, without its indentation.
void addTo(Text& text, const std::string& line, int number) {
  if (text.lines.empty() || !text.lines.back().ends_with("\\")) return text.add(line, number);
  text.lines.back().pop_back();
  text.lines.back() += line.substr(std::min(line.find_first_not_of(' '), line.size()));
}

void readFile(const fs::path& path, std::vector<Case>& cases) {
  const std::string stem = path.stem().string() + "_";
  const std::size_t first = cases.size();
  Text* text = nullptr;
  int number = 0;
  std::ifstream stream(path);
  for (std::string line; std::getline(stream, line);) {
    ++number;
    const auto [key, value] = split(line, ": ");
    if (line.starts_with("=== ")) {
      cases.push_back({(line[4] == '@' ? "" : stem) + line.substr(4), path.string(), number});
      text = nullptr;
    } else if (line.starts_with("--- ")) {
      text = &cases.back().texts[line.substr(4)];
    } else if (text != nullptr) {
      addTo(*text, line, number);
    } else if (key == "args" || key == "args:") {
      cases.back().texts["sh"] = {{"\"$KESTREL\" " + value}, {number}};
    } else if (key == "sh" || key == "token" || key == "status") {
      cases.back().texts[key].add(value, number);
    } else if (cases.size() > first && !line.starts_with("# ")) {
      text = &cases.back().texts["out"];
      addTo(*text, line, number);
    }
  }
  for (std::size_t i = first; i < cases.size(); ++i) {
    if (cases[i].texts["sh"].lines.empty() && i > first)
      cases[i].texts["sh"] = cases[i - 1].texts["sh"];
  }
}

// Blank lines and comments before the next case belong to the file, not to the text.
void trim(Text& text) {
  while (!text.lines.empty() && text.lines.back().starts_with("# ")) text.lines.pop_back();
  if (!text.lines.empty() && text.lines.back().empty()) text.lines.pop_back();
}

std::map<std::string, Text> written(const Case& one, const Pieces& pieces) {
  std::map<std::string, Text> texts = {{"token", {}}};
  for (const auto& [heading, text] : one.texts) {
    const bool within = heading.starts_with("in ");
    const std::string name = heading.substr(within ? 3 : 0);
    Text& to = texts[name];
    if (within) to.add("...", one.line);
    for (std::size_t i = 0; i < text.lines.size(); ++i)
      expand(pieces, name, text.lines[i], text.numbers[i], to);
    if (within) to.add("...", one.line);
  }
  return texts;
}

}  // namespace

std::vector<Case> readCases() {
  std::vector<Case> cases;
  for (const auto& file : fs::directory_iterator(SELFTEST "/cases")) readFile(file.path(), cases);
  Pieces pieces;
  for (Case& one : cases) {
    for (auto& [heading, text] : one.texts) trim(text);
    pieces[one.name] = one.texts;
  }
  std::erase_if(cases, [](const Case& one) { return one.name[0] == '@'; });
  for (Case& one : cases) one.texts = written(one, pieces);
  return cases;
}
