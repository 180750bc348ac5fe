#include "probe/ProbeDisplay.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string_view>

#include "common/FitText.h"
#include "probe/Values.h"

namespace kestrel::probe {

namespace {

std::string_view environment(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string areaOf(const std::string& path) {
  return path.substr(0, path.find('/'));
}

std::string valueOf(const Finding& finding) {
  std::string text = finding.call;
  if (finding.value) text.append(" ").append(valueText("CKR_", *finding.value));
  if (!finding.detail.empty()) {
    text.append(text.empty() ? "" : ": ").append(visible(finding.detail));
  }
  return text;
}

std::string expectedOf(const Expected& expected) {
  std::string text;
  for (const CK_RV value : expected) {
    text.append(text.empty() ? "" : " or ").append(valueText("CKR_", value));
  }
  return text;
}

}  // namespace

Display::Display(std::FILE* stream, bool verbose, std::string command)
    : stream_(stream),
      verbose_(verbose),
      moving_(isatty(fileno(stream)) != 0 && environment("TERM") != "dumb"),
      colors_(moving_ && environment("NO_COLOR").empty()),
      command_(std::move(command)) {}

void Display::print(const std::string& line) {
  std::fputs((line + "\n").c_str(), stream_);
}

void Display::clear() {
  if (moving_) std::fputs("\r\x1b[K", stream_);
}

std::string Display::painted(Verdict verdict, const std::string& text) const {
  return colors_ ? fmt::format("\x1b[{}m{}\x1b[0m", rowOf(verdict).color, text) : text;
}

void Display::begin(const std::string& token, std::size_t checks) {
  checks_ = checks;
  print(fmt::format("token \"{}\", {} checks", visible(token), checks));
  std::fflush(stream_);
}

void Display::running(const Check& check, double seconds) {
  if (!moving_) return;
  std::fputs(
      fmt::format("\r\x1b[K{} of {}  {:.0f} s  {}", done_, checks_, seconds, check.path).c_str(),
      stream_);
  std::fflush(stream_);
}

void Display::fell(const Check& check, const Finding& finding) {
  ++done_;
  const std::string area = areaOf(check.path);
  if (areas_.empty() || areas_.back().first != area) areas_.push_back({area, {}});
  ++areas_.back().second[static_cast<std::size_t>(finding.verdict)];
  if (rowOf(finding.verdict).worthReading) {
    told_.push_back({check.path, std::string(check.clause), expectedOf(check.expected), finding});
  }
  if (finding.verdict == Verdict::notApplicable) ++reasons_[finding.detail];
  if (!verbose_) return;
  clear();
  print(fmt::format("{}  {}  {}",
                    painted(finding.verdict, fmt::format("{:14}", rowOf(finding.verdict).name)),
                    check.path, valueOf(finding)));
  std::fflush(stream_);
}

void Display::table() {
  std::string head = fmt::format("{:<12}", "");
  std::vector<const VerdictRow*> columns;
  for (auto row = verdictRows.rbegin(); row != verdictRows.rend(); ++row) {
    const auto at = static_cast<std::size_t>(row->verdict);
    if (std::ranges::any_of(areas_, [at](const auto& area) { return area.second[at] != 0; })) {
      columns.push_back(&*row);
      head += fmt::format("  {}", row->name);
    }
  }
  print(head);
  for (const auto& [area, totals] : areas_) {
    std::string line = fmt::format("{:<12}", area);
    for (const VerdictRow* column : columns) {
      const std::size_t count = totals[static_cast<std::size_t>(column->verdict)];
      const std::string cell = fmt::format("{:>{}}", count == 0 ? "-" : std::to_string(count),
                                           std::string_view(column->name).size());
      line.append("  ").append(count == 0 ? cell : painted(column->verdict, cell));
    }
    print(line);
  }
}

void Display::tell(const Told& told) {
  const VerdictRow& row = rowOf(told.finding.verdict);
  print(fmt::format("\n{}  {}", painted(row.verdict, row.name), told.path));
  print(fmt::format("    {}", valueOf(told.finding)));
  print(fmt::format("    expected {}{}", told.expected,
                    told.clause.empty() ? "" : fmt::format(" (PKCS #11, {})", told.clause)));
  print(fmt::format("    {} {}", command_, told.path));
}

// Why so many were not applicable: one line a reason, the most frequent first.
void Display::reasons() {
  std::vector<std::pair<std::size_t, std::string>> sorted;
  for (const auto& [reason, count] : reasons_) sorted.emplace_back(count, reason);
  std::ranges::stable_sort(sorted, std::ranges::greater{},
                           [](const auto& each) { return each.first; });
  constexpr std::size_t most = 8;
  for (std::size_t i = 0; i < std::min(most, sorted.size()); ++i) {
    print(fmt::format("not applicable: {} x {}", sorted[i].first, visible(sorted[i].second)));
  }
  if (sorted.size() > most)
    print(fmt::format("not applicable: {} reasons more (-v)", sorted.size() - most));
}

void Display::finish(bool interrupted, double seconds) {
  clear();
  table();
  reasons();
  std::ranges::stable_sort(told_, {},
                           [](const Told& told) { return &rowOf(told.finding.verdict); });
  for (const Told& told : told_) tell(told);
  print(fmt::format("\n{}{} checks, {:.1f} s", interrupted ? "interrupted: " : "", done_, seconds));
  std::fflush(stream_);
}

}  // namespace kestrel::probe
