#include "run/judge/Findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "common/Numbers.h"
#include "run/judge/Phrases.h"
#include "run/judge/Transcript.h"

namespace kestrel::run {

namespace {

// A call as the trace has it: C_X(word=value, ...) = RESULT 0x0 <N us> ...
struct TracedCall {
  std::string_view function, arguments;
  std::optional<std::uint64_t> microseconds;  // none for one that did not return

  explicit TracedCall(std::string_view line) {
    const std::size_t open = std::min(line.find('('), line.size());
    const std::size_t close =
        std::max(std::min(line.rfind(phrase::tracedResult), line.size()), open);
    function = line.substr(0, open);
    arguments = line.substr(open, close - open);
    const std::size_t time = line.find('<', close);
    if (time == line.npos) return;
    const std::string_view text = line.substr(time + 1);
    microseconds = readNumber<std::uint64_t>(text.substr(0, text.find(phrase::tracedTimeEnd)));
  }

  // Without its parameter; empty if the call has none.
  std::string_view mechanism() const {
    constexpr std::string_view word = phrase::tracedMechanism;
    const std::size_t at = arguments.find(word);
    if (at == arguments.npos) return {};
    const std::string_view name = arguments.substr(at + word.size());
    return name.substr(0, name.find_first_of("(,"));
  }
};

void addTimes(const std::vector<TracedCall>& calls, Run& run) {
  std::vector<std::pair<std::string_view, std::vector<std::uint64_t>>> times;
  for (const TracedCall& call : calls) {
    if (!call.microseconds) continue;
    auto row = std::ranges::find(times, call.function, &decltype(times)::value_type::first);
    if (row == times.end()) row = times.insert(times.end(), {call.function, {}});
    row->second.push_back(*call.microseconds);
  }
  for (auto& [function, samples] : times) {
    std::ranges::sort(samples);
    run.times.push_back(
        {std::string(function), samples.size(), samples[samples.size() / 2], samples.back()});
  }
}

// The mechanism that the call was about in which the run ended: its own, or that of the operation
// that was begun last.
void nameMechanism(const std::vector<TracedCall>& calls, Run& run) {
  const auto last = std::find_if(calls.rbegin(), calls.rend(), [&run](const TracedCall& call) {
    return call.function == run.call;
  });
  const bool ofOperation = run.call.starts_with("C_Sign") || run.call.starts_with("C_Decrypt");
  if (last == calls.rend() || !ofOperation) return;
  const auto begun = std::find_if(last, calls.rend(),
                                  [](const TracedCall& call) { return !call.mechanism().empty(); });
  if (begun == calls.rend()) return;
  if (run.reason.empty()) run.reason = fmt::format("{} {}", run.call, run.valueName);
  run.reason += fmt::format(", {}", begun->mechanism());
}

}  // namespace

void addFindings(SideFiles files, Run& run) {
  for (const std::string_view line : linesOf(files.used)) {
    if (line.starts_with('+')) ++run.waived[std::string(line.substr(1))];
    if (!line.starts_with('-')) continue;
    const auto helped = run.waived.find(std::string(line.substr(1)));
    if (helped != run.waived.end() && --helped->second == 0) run.waived.erase(helped);
  }
  std::vector<TracedCall> calls;
  for (const std::string_view line : linesOf(files.trace)) calls.emplace_back(line);
  addTimes(calls, run);
  nameMechanism(calls, run);
  run.trace = std::move(files.trace);
}

}  // namespace kestrel::run
