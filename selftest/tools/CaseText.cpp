#include "selftest/tools/CaseText.h"

#include <fnmatch.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <sstream>

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

std::pair<std::string, std::string> split(const std::string& text, const std::string& separator) {
  const std::size_t at = std::min(text.find(separator), text.size());
  return {text.substr(0, at), text.substr(std::min(at + separator.size(), text.size()))};
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
    text.replace(at, what.size(), with);
  return text;
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

bool lineMatches(const std::string& pattern, const std::string& actual) {
  if (pattern.find("[..]") == std::string::npos) return pattern == actual;
  std::string glob = pattern;
  for (const char* special : {"\\", "*", "?", "["})
    glob = replaced(glob, special, std::string("\\") + special);
  return fnmatch(replaced(glob, "\\[..]", "*").c_str(), actual.c_str(), 0) == 0;
}

namespace {

constexpr char anyLines[] = "...";
constexpr std::size_t around = 2;  // lines that are shown before and behind a difference

// How many lines differ between the rest of the one text and that of the other.
class Costs {
 public:
  Costs(const Lines& expected, const Lines& actual)
      : expected_(expected),
        actual_(actual),
        costs_((expected.size() + 1) * (actual.size() + 1), 0) {
    for (std::size_t i = expected.size() + 1; i-- > 0;)
      for (std::size_t j = actual.size() + 1; j-- > 0;) at(i, j) = cheapest(i, j);
  }

  std::size_t& at(std::size_t i, std::size_t j) { return costs_[i * (actual_.size() + 1) + j]; }
  bool any(std::size_t i) const { return i < expected_.size() && expected_[i] == anyLines; }
  bool matches(std::size_t i, std::size_t j) const {
    return i < expected_.size() && j < actual_.size() && !any(i) &&
           lineMatches(expected_[i], actual_[j]);
  }

 private:
  std::size_t cheapest(std::size_t i, std::size_t j) {
    if (matches(i, j)) return at(i + 1, j + 1);
    const std::size_t step = any(i) ? 0 : 1;
    std::size_t cost = i == expected_.size() && j == actual_.size() ? 0 : ~std::size_t{0};
    if (i < expected_.size()) cost = std::min(cost, at(i + 1, j) + step);
    if (j < actual_.size()) cost = std::min(cost, at(i, j + 1) + step);
    return cost;
  }

  const Lines& expected_;
  const Lines& actual_;
  std::vector<std::size_t> costs_;
};

// Both texts in one, each line behind its mark.
Lines marked(Costs& costs, const Lines& expected, const Lines& actual) {
  Lines all;
  std::size_t i = 0, j = 0;
  while (i < expected.size() || j < actual.size()) {
    if (costs.matches(i, j)) {
      all.push_back(" " + actual[j++]);
      ++i;
    } else if (i < expected.size() &&
               (j == actual.size() || costs.at(i + 1, j) <= costs.at(i, j + 1))) {
      all.push_back((costs.any(i) ? " " : "-") + expected[i]);
      ++i;
    } else {
      all.push_back((costs.any(i) ? " " : "+") + actual[j++]);
    }
  }
  return all;
}

}  // namespace

std::string difference(const Lines& expected, const Lines& actual) {
  Costs costs(expected, actual);
  if (costs.at(0, 0) == 0) return "";
  const Lines all = marked(costs, expected, actual);
  std::string text;
  std::size_t until = 0;  // what comes next is shown up to there
  for (std::size_t i = 0; i < all.size(); ++i) {
    const auto end =
        all.begin() + static_cast<Lines::difference_type>(std::min(i + around + 1, all.size()));
    const auto next = std::find_if(all.begin() + static_cast<Lines::difference_type>(i), end,
                                   [](const std::string& line) { return line[0] != ' '; });
    if (next != end) until = static_cast<std::size_t>(next - all.begin()) + around + 1;
    if (i < until)
      text += all[i] + "\n";
    else if (text.empty() || i == until)
      text += " ...\n";
  }
  return text;
}
