// What an outcome is taken from, and the two places that take it from an exit status.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "harness/Tests.h"
#include "run/Process.h"
#include "run/Results.h"

struct Evidence {
  const kestrel::Test& test;
  const Ended& ended;
  std::vector<std::string_view> report, errors;  // lines
};

// How a reason begins when nothing that was printed tells why a process ended.
inline constexpr char unexplained[] = "the process ended";

void conclude(Run& run, Outcome outcome, std::string reason = "");
void failIn(Run& run, std::string call, std::uint32_t value);

// Failure.cpp: exit status 1, which a line of the report or of standard error explains.
void explainFailure(const Evidence& evidence, Run& run);

// Success.cpp: exit status 0, and what kestrel leaves to the reader's eye.
void judgeSuccess(const Evidence& evidence, Run& run);
