// Reads what kestrel prints. A module's text stands among it and may look like any of it: what is
// read here explains an outcome, which the exit status decides.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "run/judge/Run.h"

namespace kestrel::run {

// The slot position of the prompt for a PIN that ends the output so far.
std::optional<std::uint64_t> promptAtEnd(std::string_view output);

std::vector<std::string_view> linesOf(std::string_view text);

// Every call that is reported, in order, 100,000 at most. A prompt shares its line with the report
// line behind it.
std::vector<ReportedCall> reportedCalls(const std::vector<std::string_view>& lines);

// The last failure line, whatever a module wrote before it on the same line; null if there is none.
std::optional<ReportedCall> lastFailure(const std::vector<std::string_view>& lines);

// Whether a line ends by saying that a call passed.
bool saysPassed(std::string_view line, std::string_view call);

// Whether kestrel came to its regular end: a tear-down that passed.
bool isComplete(const std::vector<std::string_view>& lines);

// The module's function that kestrel names on standard error, when a signal, an exception or the
// module's own exit ended the process.
std::string namedCall(const std::vector<std::string_view>& errors);

// What the last line of a text that starts with `prefix` says behind it.
std::optional<std::string_view> lastAfter(const std::vector<std::string_view>& lines,
                                          std::string_view prefix);

struct Signatures {
  std::size_t verified = 0, unchecked = 0;
  std::string_view last;  // the mechanism that was checked last
};
Signatures countSignatures(const std::vector<std::string_view>& lines);

// A line of a dump: "OFFSET: NN NN ...", 16 bytes at most.
struct DumpLine {
  std::size_t offset;
  std::string bytes;
};
std::optional<DumpLine> readDumpLine(std::string_view line);  // none for any other line

// The bytes of every dump under the line `heading`, in order.
std::vector<std::string> dumpsUnder(std::string_view heading,
                                    const std::vector<std::string_view>& lines);

}  // namespace kestrel::run
