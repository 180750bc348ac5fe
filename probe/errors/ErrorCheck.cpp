#include "probe/errors/ErrorCheck.h"

#include <fmt/format.h>

namespace kestrel::probe {

Check& addError(Plan& plan, FunctionId function, std::string_view name, const Expected& expected,
                std::function<void(Bench&)> run) {
  Check check{fmt::format("errors/{}/{}", nameOf(function), name), Stage::user, expected,
              nameOf(function), std::move(run)};
  check.function = function;
  return plan.emplace_back(std::move(check));
}

void requireWorks(Bench& bench, const Kit& kit) {
  constexpr CK_ULONG enough = 4096;  // bytes of any result
  auto* const length = bench.memory.out<CK_ULONG>(enough);
  if (kit.begin(bench.session) == CKR_OK &&
      kit.single(bench.session, bench.memory.bytes(enough), length) == CKR_OK) {
    return;
  }
  bench.end(Verdict::deviates, "after it the operation that worked before does not");
}

}  // namespace kestrel::probe
