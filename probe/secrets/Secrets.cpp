#include "probe/secrets/Secrets.h"

#include <fmt/format.h>

#include "probe/Area.h"

namespace kestrel::probe {

Check& addAttack(Plan& plan, std::string_view name, FunctionId function, const Expected& expected,
                 std::function<void(Bench&)> run) {
  Check check{fmt::format("secrets/{}", name), Stage::user, expected, nameOf(function),
              std::move(run)};
  check.function = function;
  return plan.emplace_back(std::move(check));
}

CK_OBJECT_HANDLE makeSecret(Bench& bench, bool sensitive, bool extractable,
                            const std::function<void(Template&)>& more) {
  Template attributes(bench.memory);
  attributes.add(CKA_CLASS, CK_ULONG{CKO_SECRET_KEY})
      .add(CKA_KEY_TYPE, CK_ULONG{CKK_AES})
      .add(CKA_TOKEN, false)
      .add(CKA_SENSITIVE, sensitive)
      .add(CKA_EXTRACTABLE, extractable)
      .add(CKA_ENCRYPT, true)
      .add(CKA_VALUE, secretValue);
  if (more) more(attributes);
  auto* const key = bench.memory.out<CK_OBJECT_HANDLE>(CK_INVALID_HANDLE);
  bench.control(p11::C_CreateObject(bench.session, attributes.in(), attributes.count(), key));
  return *key;
}

void addSecrets(Plan& plan, const TokenFacts*) {
  addAttributeAttacks(plan);
  addWrappingAttacks(plan);
  addUseAttacks(plan);
}

}  // namespace kestrel::probe
