#include <fmt/format.h>

#include <set>

#include "probe/Area.h"
#include "probe/Values.h"
#include "probe/mechanisms/Operate.h"

namespace kestrel::probe {

namespace {

// What the token lists, and nobody has a row for.
void addUnknown(Plan& plan, const TokenFacts& facts) {
  std::set<CK_MECHANISM_TYPE> known;
  for (const Check& check : plan) {
    if (check.mechanism) known.insert(check.mechanism->type);
  }
  for (std::size_t i = 0; i < facts.mechanismCount; ++i) {
    const CK_MECHANISM_TYPE type = facts.mechanisms[i].type;
    if (!known.insert(type).second) continue;
    Check check{fmt::format("mechanisms/{}/no-row", valueText("CKM_", type)), Stage::initialized};
    check.run = [](Bench& bench) { bench.notApplicable("not tried: nobody wrote a row for it"); };
    plan.push_back(std::move(check));
  }
}

}  // namespace

void addMechanisms(Plan& plan, const TokenFacts* facts) {
  for (const auto add :
       {addDigests, addMacs, addCiphers, addRsaSignatures, addRsaEncryption, addCurveSignatures,
        addGeneration, addAgreements, addDerivations, addWrapping}) {
    add(plan);
  }
  if (facts != nullptr) addUnknown(plan, *facts);
}

}  // namespace kestrel::probe
