#include "probe/Area.h"
#include "probe/Bench.h"

namespace kestrel::probe {

namespace {

void listOneShort(Bench& bench) {
  auto* const count = bench.memory.out<CK_ULONG>(0);
  bench.control(p11::C_GetMechanismList(bench.token.slot, nullptr, count));
  const CK_ULONG needed = *count;
  if (needed < 2) bench.notApplicable("fewer than two mechanisms");
  const CK_ULONG room = needed - 1;
  auto* const list = static_cast<CK_MECHANISM_TYPE*>(bench.memory.room(room * sizeof(CK_ULONG)));
  *count = room;
  bench.expect(p11::C_GetMechanismList(bench.token.slot, list, count));
  bench.require(*count == needed, "does not say how many there are");
}

}  // namespace

void addBuffers(Plan& plan, const TokenFacts*) {
  plan.push_back({"buffers/C_GetMechanismList/one-short",
                  Stage::initialized,
                  {CKR_BUFFER_TOO_SMALL},
                  "C_GetMechanismList",
                  listOneShort});
}
void addMechanisms(Plan&, const TokenFacts*) {}

}  // namespace kestrel::probe
