#include "run/results/Difference.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "common/Lines.h"

namespace kestrel::run {

namespace {

constexpr std::size_t largestTable = 4'000'000;  // pairs
constexpr std::size_t mostCompared = 100'000;    // lines
constexpr std::ptrdiff_t context = 3;            // lines
constexpr std::size_t mostLines = 300;           // of a difference
constexpr std::size_t longestLine = 300;         // bytes

using TextLines = std::vector<std::string_view>;

// The lines with their ends; what is behind the last line compared is one more.
TextLines split(std::string_view text) {
  TextLines lines;
  while (!text.empty() && lines.size() < mostCompared) lines.push_back(takeLine(text));
  if (!text.empty()) lines.push_back(text);
  return lines;
}

struct Step {
  char mark;  // ' ', '-' or '+'
  std::string_view line;
};

// The steps from the lines [first, beforeEnd) of `before` to [first, nowEnd) of `now`, by a table
// of all pairs: a report has some hundred lines, and what is alike at both ends never enters the
// table.
void addMiddle(const TextLines& before, const TextLines& now, std::size_t first,
               std::size_t beforeEnd, std::size_t nowEnd, std::vector<Step>& steps) {
  const std::size_t rows = beforeEnd - first, columns = nowEnd - first;
  const bool aligned = rows != 0 && columns != 0 && rows <= largestTable / columns;
  // common[r * (columns + 1) + c]: how many lines the texts from row r and column c on share.
  std::vector<std::uint32_t> common(aligned ? (rows + 1) * (columns + 1) : 0);
  const auto at = [&](std::size_t row, std::size_t column) -> std::uint32_t& {
    return common[row * (columns + 1) + column];
  };
  const auto alike = [&](std::size_t row, std::size_t column) {
    return before[first + row] == now[first + column];
  };
  for (std::size_t row = aligned ? rows : 0; row-- > 0;) {
    for (std::size_t column = columns; column-- > 0;) {
      at(row, column) = alike(row, column) ? at(row + 1, column + 1) + 1
                                           : std::max(at(row + 1, column), at(row, column + 1));
    }
  }
  std::size_t row = 0, column = 0;
  while (row < rows || column < columns) {
    if (aligned && row < rows && column < columns && alike(row, column)) {
      steps.push_back({' ', before[first + row++]});
      ++column;
    } else if (row < rows &&
               (!aligned || column == columns || at(row + 1, column) >= at(row, column + 1))) {
      steps.push_back({'-', before[first + row++]});
    } else {
      steps.push_back({'+', now[first + column++]});
    }
  }
}

std::vector<Step> align(const TextLines& before, const TextLines& now) {
  const auto ends = std::mismatch(before.begin(), before.end(), now.begin(), now.end());
  const auto first = static_cast<std::size_t>(ends.first - before.begin());
  std::size_t beforeEnd = before.size(), nowEnd = now.size();
  while (beforeEnd > first && nowEnd > first && before[beforeEnd - 1] == now[nowEnd - 1]) {
    --beforeEnd;
    --nowEnd;
  }
  std::vector<Step> steps;
  for (std::size_t i = 0; i < first; ++i) steps.push_back({' ', before[i]});
  addMiddle(before, now, first, beforeEnd, nowEnd, steps);
  for (std::size_t i = beforeEnd; i < before.size(); ++i) steps.push_back({' ', before[i]});
  return steps;
}

// "4,7", or "4" for one line; of no lines, the line before them.
std::string range(std::size_t first, std::size_t count) {
  if (count == 1) return std::to_string(first + 1);
  return fmt::format("{},{}", count == 0 ? first : first + 1, count);
}

std::string shown(const Step& step) {
  std::string_view line = step.line;
  std::string end = "\n";
  if (line.ends_with('\n')) {
    line.remove_suffix(1);
  } else {
    end += "\\ No newline at end of report\n";
  }
  if (line.size() > longestLine) {
    std::size_t length = longestLine;
    while ((static_cast<unsigned char>(line[length]) & 0xc0) == 0x80) --length;  // of a character
    line = line.substr(0, length);
    end = "..." + end;
  }
  return step.mark + std::string(line) + end;
}

using Place = std::vector<Step>::const_iterator;

// The place behind the hunk whose first change is at `change`.
Place hunkEnd(Place change, Place end) {
  Place last = change;
  for (Place step = change; step != end && step - last <= 2 * context + 1; ++step) {
    if (step->mark != ' ') last = step;
  }
  return last + std::min(context + 1, end - last);
}

}  // namespace

std::string unifiedDiff(const std::string& before, const std::string& now) {
  const TextLines beforeLines = split(before), nowLines = split(now);
  const std::vector<Step> steps = align(beforeLines, nowLines);
  const auto count = [](Place first, Place last, char except) {
    return static_cast<std::size_t>(
        std::count_if(first, last, [&](const Step& step) { return step.mark != except; }));
  };
  std::string text;
  std::size_t beforeLine = 0, nowLine = 0, written = 0;
  for (Place done = steps.begin(), change = done;; done = change) {
    change = std::find_if(done, steps.end(), [](const Step& step) { return step.mark != ' '; });
    if (change == steps.end()) return text;
    const Place begin = change - std::min(context, change - done);
    const Place end = hunkEnd(change, steps.end());
    beforeLine += count(done, begin, '+');
    nowLine += count(done, begin, '-');
    const std::size_t removed = count(begin, end, '+'), added = count(begin, end, '-');
    text += fmt::format("@@ -{} +{} @@\n", range(beforeLine, removed), range(nowLine, added));
    for (Place step = begin; step != end; ++step) {
      if (++written > mostLines) return text + "... (too long to show)\n";
      text += shown(*step);
    }
    beforeLine += removed;
    nowLine += added;
    change = end;
  }
}

}  // namespace kestrel::run
