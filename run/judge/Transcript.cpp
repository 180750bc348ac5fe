#include "run/judge/Transcript.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "common/Lines.h"
#include "common/Numbers.h"

namespace kestrel::run {

namespace {

constexpr std::string_view promptStart = "Enter PIN for the card in slot ";
constexpr std::string_view promptEnd = " (max length = 31): ";
constexpr std::string_view passedMark = "() passed";
constexpr std::string_view failedMark = "() failed : 0x";

// Names of report lines that are not a function's.
constexpr std::array<std::string_view, 10> otherNames{
    "CKU_CONTEXT_SPECIFIC C_Login",
    "C_WaitForSlotEvent(CKF_DONT_BLOCK) == CKR_OK",
    "C_WaitForSlotEvent blocking == CKR_OK",
    "C_WaitForSlot(CKF_DONT_BLOCK) == CKR_NO_EVENT",
    "Find objects init",
    "Find objects final",
    "Find objects",
    "verifySig",
    "signByUpdate",
    "Error encrypting message",
};

// The name of a call at the end of a text; empty if there is none.
std::string_view nameAtEnd(std::string_view text) {
  for (const std::string_view name : otherNames) {
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
  const std::size_t mark = line.find(passedMark);
  if (mark == line.npos) return std::nullopt;
  const std::string_view rest = line.substr(mark + passedMark.size());
  const std::string_view head = line.substr(0, mark);
  const std::string_view name = nameAtEnd(head);
  if (name.empty() || (!rest.empty() && !rest.starts_with(": "))) return std::nullopt;
  const std::string_view before = head.substr(0, head.size() - name.size());
  if (!before.empty() && !promptAtEnd(before)) return std::nullopt;
  return ReportedCall{.name = std::string(name)};
}

std::optional<ReportedCall> readFailed(std::string_view line) {
  const std::size_t mark = line.rfind(failedMark);
  if (mark == line.npos || !line.ends_with(']')) return std::nullopt;
  const std::string_view name = nameAtEnd(line.substr(0, mark));
  if (name.empty() || !line.substr(0, mark - name.size()).ends_with("!!! ")) return std::nullopt;
  const std::string_view tail = line.substr(mark + failedMark.size());
  const std::size_t numberEnd = tail.find("!!! [");
  const auto value = readNumber<std::uint32_t>(tail.substr(0, numberEnd), 16);
  if (numberEnd == tail.npos || !value) return std::nullopt;
  const std::string_view valueName = tail.substr(numberEnd + 5, tail.size() - numberEnd - 6);
  return ReportedCall{std::string(name), false, *value, std::string(valueName)};
}

std::string_view mechanismIn(std::string_view announcement) {
  for (const std::string_view start : {"Performing ", "Signature mechanism is "}) {
    if (!announcement.starts_with(start)) continue;
    announcement.remove_prefix(start.size());
    return announcement.substr(0, announcement.find(' '));
  }
  return {};
}

}  // namespace

std::optional<std::uint64_t> promptAtEnd(std::string_view output) {
  if (!output.ends_with(promptEnd)) return std::nullopt;
  output.remove_suffix(promptEnd.size());
  const std::size_t start = output.rfind(promptStart);
  if (start == output.npos) return std::nullopt;
  return readNumber<std::uint64_t>(output.substr(start + promptStart.size()));
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

bool isComplete(const std::vector<std::string_view>& lines) {
  const auto teardown = std::find(lines.rbegin(), lines.rend(), "teardown test");
  return std::any_of(lines.rbegin(), teardown,
                     [](std::string_view line) { return line.ends_with("C_Finalize() passed"); });
}

std::string namedCall(const std::vector<std::string_view>& errors) {
  for (auto line = errors.rbegin(); line != errors.rend(); ++line) {
    if (!line->starts_with("kestrel: ")) continue;
    for (const std::string_view owner : {" the module's ", " the PC/SC service's "}) {
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
    if (lines[i] != "getting public key in openssl function") continue;
    signatures.last = mechanismIn(lines[i + 1]);
    if (i + 2 < lines.size() && lines[i + 2] == "verifySig() passed") ++signatures.unchecked;
    if (i + 3 < lines.size() && lines[i + 3] == "verifySig() passed" &&
        lines[i + 2].ends_with(" signature verification passed")) {
      ++signatures.verified;
    }
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
    if (lines[i] != heading || !lines[i - 1].empty() || !lines[i - 2].ends_with(passedMark))
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
