// Which checks there are, and which of them are run.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "probe/Area.h"
#include "probe/ProbeOptions.h"

namespace kestrel::probe {

// The areas by name, in their order.
std::span<const Area> areas();

// What the options ask for, in the order of the areas. Throws std::runtime_error, which says what
// there is, for a name that is none.
Plan makePlan(const Options& options, const TokenFacts* facts);

// What a plan reaches: the functions and mechanisms that its paths name.
struct Coverage {
  std::size_t functions = 0, mechanisms = 0;  // of PKCS #11 2.40, and all
};
Coverage coverageOf(const Plan& plan);

// The findings of those that the token's own words settle: what it does not list, nobody tries.
std::vector<std::optional<Finding>> settle(const Plan& plan, const TokenFacts& facts);

}  // namespace kestrel::probe
