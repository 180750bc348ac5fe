// What an outcome is taken from, and how it is noted.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "harness/Tests.h"
#include "run/judge/Run.h"
#include "run/process/Ended.h"

namespace kestrel::run {

struct Evidence {
  const Test& test;
  const Ended& ended;
  std::vector<std::string_view> report, errors;  // lines
};

// How a reason begins when nothing that was printed tells why a process ended.
inline constexpr char unexplained[] = "the process ended";

void conclude(Run& run, Outcome outcome, std::string reason = "");
void failIn(Run& run, std::string call, std::uint32_t value);

}  // namespace kestrel::run
