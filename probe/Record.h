// What the process that runs the checks sends to the one that started it, a record a check. Fits
// into one write to a pipe, which is whole or not there.
#pragma once

#include <array>
#include <climits>
#include <cstdint>

#include "probe/Check.h"

namespace kestrel::probe {

struct Record {
  enum class Kind : std::uint32_t { finding, setUpFailed };

  std::uint32_t check = 0;
  Kind kind = Kind::finding;
  std::uint32_t verdict = 0;
  std::uint32_t hasValue = 0;
  CK_RV value = 0;
  double seconds = 0;
  std::array<char, 40> call = {};
  std::array<char, 1000> detail = {};

  static Record of(std::uint32_t check, const Finding& finding, Kind kind = Kind::finding);

  // With everything in it bounded: the module shares the process that wrote it.
  Finding finding() const;
};

static_assert(sizeof(Record) <= PIPE_BUF);

// A finding in a few words, for those who could not begin because of it.
std::string reasonOf(const Finding& finding);

}  // namespace kestrel::probe
