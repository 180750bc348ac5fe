#include "probe/Record.h"

#include <algorithm>
#include <cstring>

#include "probe/Values.h"

namespace kestrel::probe {

namespace {

template <std::size_t size>
void put(std::array<char, size>& field, const std::string& text) {
  std::copy_n(text.begin(), std::min(text.size(), size - 1), field.begin());
}

template <std::size_t size>
std::string get(const std::array<char, size>& field) {
  return {field.begin(), std::find(field.begin(), field.end(), '\0')};
}

}  // namespace

Record Record::of(std::uint32_t check, const Finding& finding, Kind kind) {
  Record record;
  record.check = check;
  record.kind = kind;
  record.verdict = static_cast<std::uint32_t>(finding.verdict);
  record.hasValue = finding.value ? 1 : 0;
  record.value = finding.value.value_or(0);
  record.seconds = finding.seconds;
  put(record.call, finding.call);
  put(record.detail, finding.detail);
  return record;
}

Finding Record::finding() const {
  Finding finding;
  finding.verdict = static_cast<Verdict>(std::min<std::uint32_t>(verdict, verdictCount - 1));
  finding.call = get(call);
  if (hasValue != 0) finding.value = value;
  finding.detail = get(detail);
  finding.seconds = seconds;
  return finding;
}

std::string reasonOf(const Finding& finding) {
  std::string reason = finding.call;
  if (finding.value) reason.append(" ").append(valueText("CKR_", *finding.value));
  if (!finding.detail.empty()) reason.append(reason.empty() ? "" : ": ").append(finding.detail);
  return reason;
}

}  // namespace kestrel::probe
