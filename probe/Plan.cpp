#include "probe/Plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <set>
#include <span>
#include <stdexcept>

#include "probe/Values.h"

namespace kestrel::probe {

namespace {

constexpr std::array areaTable{
    Area{"mechanisms", "every mechanism that the token lists: does it do it, and right?",
         addMechanisms},
    Area{"buffers", "lengths and lists: nothing is written that was not given", addBuffers},
    Area{"errors", "misuse of every function: the right value, and nothing lost by it", addErrors},
    Area{"secrets", "what an attacker with a login tries on the keys", addSecrets},
};

bool isWithin(std::string_view path, std::string_view name) {
  return path.starts_with(name) && (path.size() == name.size() || path[name.size()] == '/');
}

bool isWanted(const Check& check, const Options& options, bool byDefault) {
  if ((check.undefined && !options.undefined) || (check.leaves && !options.leaveObjects)) {
    return false;
  }
  if (options.names.empty()) return byDefault && !check.onlyNamed;
  return std::ranges::any_of(options.names, [&](const std::string& name) {
    return isWithin(check.path, name) && (!check.onlyNamed || name == check.path);
  });
}

[[noreturn]] void refuse(const std::string& name) {
  std::string known;
  for (const Area& area : areaTable)
    known += fmt::format("{}{}", known.empty() ? "" : ", ", area.name);
  throw std::runtime_error(
      fmt::format("no check matches '{}'; areas: {} (--list has the checks)", name, known));
}

}  // namespace

std::span<const Area> areas() {
  return areaTable;
}

Plan makePlan(const Options& options, const TokenFacts* facts) {
  Plan plan;
  std::vector<std::string> unmatched = options.names;
  for (const Area& area : areaTable) {
    Plan all;
    area.add(all, facts);
    for (Check& check : all) {
      std::erase_if(unmatched, [&](const std::string& name) { return isWithin(check.path, name); });
      if (isWanted(check, options, area.byDefault)) plan.push_back(std::move(check));
    }
  }
  if (!unmatched.empty() && (facts != nullptr || options.list)) refuse(unmatched.front());
  return plan;
}

Coverage coverageOf(const Plan& plan) {
  std::set<std::string_view> functions, mechanisms;
  for (const Check& check : plan) {
    std::string_view rest = check.path;
    while (!rest.empty()) {
      const std::string_view word = rest.substr(0, rest.find('/'));
      const std::optional<FunctionId> function = findFunction(word);
      if (function && static_cast<std::size_t>(*function) < functionCount2) functions.insert(word);
      if (word.starts_with("CKM_")) mechanisms.insert(word);
      rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    }
  }
  return {functions.size(), mechanisms.size()};
}

std::vector<std::optional<Finding>> settle(const Plan& plan, const TokenFacts& facts) {
  std::vector<std::optional<Finding>> settled(plan.size());
  const auto absent = [](std::string detail) {
    return Finding{Verdict::absent, "", {}, std::move(detail)};
  };
  for (std::size_t i = 0; i < plan.size(); ++i) {
    const Check& check = plan[i];
    if (check.function != FunctionId::count &&
        !facts.offered[static_cast<std::size_t>(check.function)]) {
      settled[i] = absent(fmt::format("the module has no {}", nameOf(check.function)));
    } else if (check.mechanism && !facts.mechanismsKnown) {
      settled[i] = Finding{Verdict::notApplicable, "", {}, "the token's mechanisms are not known"};
    } else if (check.mechanism && facts.find(check.mechanism->type) == nullptr) {
      settled[i] = absent("not listed");
    } else if (check.mechanism && !facts.lists(check.mechanism->type, check.mechanism->flag)) {
      settled[i] = absent("listed without that use");
    }
  }
  return settled;
}

}  // namespace kestrel::probe
