#include "run/judge/Evidence.h"

#include <fmt/format.h>

#include "harness/CkrName.h"

namespace kestrel::run {

void conclude(Run& run, Outcome outcome, std::string reason) {
  run.outcome = outcome;
  run.reason = std::move(reason);
}

void failIn(Run& run, std::string call, std::uint32_t value) {
  run.outcome = Outcome::failed;
  run.call = std::move(call);
  run.value = value;
  run.valueName = ckrName(value);
  if (run.valueName == "UNKNOWN") run.reason = fmt::format("{} {:#x}", run.call, value);
}

}  // namespace kestrel::run
