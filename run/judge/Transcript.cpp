#include "run/judge/Transcript.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "common/Lines.h"
#include "common/Numbers.h"
#include "run/judge/Phrases.h"

namespace kestrel::run {

namespace {

// The name of a call at the end of a text; empty if there is none.
std::string_view nameAtEnd(std::string_view text) {
  for (const std::string_view name : phrase::otherCalls) {
    if (text.ends_with(name)) return name;
  }
  const std::size_t start = text.rfind("C_");
  if (start == text.npos) return {};
  const std::string_view name = text.substr(start);
  return std::ranges::all_of(name.substr(2), [](unsigned char c) { return std::isalnum(c) != 0; })
             ? name
             : std::string_view();
}

std::optional<ReportedCall> readPassed(std::string_view line) {
  // changePinTest says behind it what the call did.
  const std::size_t mark = line.find(phrase::passed);
  if (mark == line.npos) return std::nullopt;
  const std::string_view rest = line.substr(mark + phrase::passed.size());
  const std::string_view head = line.substr(0, mark);
  const std::string_view name = nameAtEnd(head);
  if (name.empty() || (!rest.empty() && !rest.starts_with(": "))) return std::nullopt;
  const std::string_view before = head.substr(0, head.size() - name.size());
  if (!before.empty() && !promptAtEnd(before)) return std::nullopt;
  return ReportedCall{.name = std::string(name)};
}

std::optional<ReportedCall> readFailed(std::string_view line) {
  const std::size_t mark = line.rfind(phrase::failed);
  if (mark == line.npos || !line.ends_with(']')) return std::nullopt;
  const std::string_view name = nameAtEnd(line.substr(0, mark));
  if (name.empty() || !line.substr(0, mark - name.size()).ends_with(phrase::failureStart))
    return std::nullopt;
  const std::string_view tail = line.substr(mark + phrase::failed.size());
  const std::size_t numberEnd = tail.find(phrase::valueStart);
  const auto value = readNumber<std::uint32_t>(tail.substr(0, numberEnd), 16);
  if (numberEnd == tail.npos || !value) return std::nullopt;
  std::string valueName(tail.substr(numberEnd + phrase::valueStart.size()));
  valueName.pop_back();
  return ReportedCall{std::string(name), false, *value, std::move(valueName)};
}

std::string_view mechanismIn(std::string_view announcement) {
  for (const std::string_view start : phrase::checkedMechanism) {
    if (!announcement.starts_with(start)) continue;
    announcement.remove_prefix(start.size());
    return announcement.substr(0, announcement.find(' '));
  }
  return {};
}

}  // namespace

std::optional<std::uint64_t> promptAtEnd(std::string_view output) {
  if (!output.ends_with(phrase::promptEnd)) return std::nullopt;
  output.remove_suffix(phrase::promptEnd.size());
  const std::size_t start = output.rfind(phrase::promptStart);
  if (start == output.npos) return std::nullopt;
  return readNumber<std::uint64_t>(output.substr(start + phrase::promptStart.size()));
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) lines.push_back(withoutEnd(takeLine(text)));
  return lines;
}

std::vector<ReportedCall> reportedCalls(const std::vector<std::string_view>& lines) {
  constexpr std::size_t most = 100'000;  // a flood is none of kestrel's
  std::vector<ReportedCall> calls;
  for (const std::string_view line : lines) {
    if (calls.size() == most) break;
    std::optional<ReportedCall> call = readPassed(line);
    if (!call) call = readFailed(line);
    if (call) calls.push_back(*std::move(call));
  }
  return calls;
}

std::optional<ReportedCall> lastFailure(const std::vector<std::string_view>& lines) {
  for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
    if (std::optional<ReportedCall> call = readFailed(*line)) return call;
  }
  return std::nullopt;
}

bool saysPassed(std::string_view line, std::string_view call) {
  if (!line.ends_with(phrase::passed)) return false;
  line.remove_suffix(phrase::passed.size());
  return line.ends_with(call);
}

bool isComplete(const std::vector<std::string_view>& lines) {
  const auto teardown = std::find(lines.rbegin(), lines.rend(), phrase::teardown);
  return std::any_of(lines.rbegin(), teardown,
                     [](std::string_view line) { return saysPassed(line, "C_Finalize"); });
}

std::string namedCall(const std::vector<std::string_view>& errors) {
  for (auto line = errors.rbegin(); line != errors.rend(); ++line) {
    if (!line->starts_with(phrase::kestrelSays)) continue;
    for (const std::string_view owner : {phrase::ofModule, phrase::ofService}) {
      const std::size_t start = line->find(owner);
      const std::size_t end = line->find("()", start);
      if (start == line->npos || end == line->npos) continue;
      return std::string(line->substr(start + owner.size(), end - start - owner.size()));
    }
  }
  return "";
}

std::optional<std::string_view> lastAfter(const std::vector<std::string_view>& lines,
                                          std::string_view prefix) {
  const auto line = std::find_if(lines.rbegin(), lines.rend(), [prefix](std::string_view each) {
    return each.starts_with(prefix);
  });
  if (line == lines.rend()) return std::nullopt;
  return line->substr(prefix.size());
}

Signatures countSignatures(const std::vector<std::string_view>& lines) {
  Signatures signatures;
  // No call of the module lies between the lines of a check: they stand together.
  for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
    if (lines[i] != phrase::checkStart) continue;
    signatures.last = mechanismIn(lines[i + 1]);
    const auto passedAt = [&lines](std::size_t line) {
      return line < lines.size() && saysPassed(lines[line], phrase::verification);
    };
    if (passedAt(i + 2)) ++signatures.unchecked;
    if (passedAt(i + 3) && lines[i + 2].ends_with(phrase::verified)) ++signatures.verified;
  }
  return signatures;
}

std::optional<DumpLine> readDumpLine(std::string_view line) {
  constexpr std::size_t digits = 8, group = 3, groups = 16;
  constexpr std::string_view separator = ": ";
  if (line.size() < digits || !line.substr(digits).starts_with(separator)) return std::nullopt;
  const auto offset = readNumber<std::size_t>(line.substr(0, digits), 16);
  if (!offset) return std::nullopt;
  line.remove_prefix(digits + separator.size());
  DumpLine dump{*offset, ""};
  for (std::size_t at = 0; at < group * groups && at + 2 <= line.size(); at += group) {
    const auto byte = readNumber<unsigned char>(line.substr(at, 2), 16);
    if (!byte) break;
    dump.bytes += static_cast<char>(*byte);
  }
  return dump;
}

std::vector<std::string> dumpsUnder(std::string_view heading,
                                    const std::vector<std::string_view>& lines) {
  std::vector<std::string> dumps;
  for (std::size_t i = 2; i < lines.size(); ++i) {
    if (lines[i] != heading || !lines[i - 1].empty() || !lines[i - 2].ends_with(phrase::passed))
      continue;
    std::string& dump = dumps.emplace_back();
    while (i + 1 < lines.size()) {
      const std::optional<DumpLine> line = readDumpLine(lines[i + 1]);
      if (!line) break;
      dump += line->bytes;
      ++i;
    }
  }
  return dumps;
}

}  // namespace kestrel::run
