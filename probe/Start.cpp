#include "probe/Start.h"

#include <fmt/format.h>

#include <algorithm>

#include "probe/Bench.h"
#include "probe/Returns.h"
#include "probe/Templates.h"
#include "probe/Values.h"

namespace kestrel::probe {

namespace {

constexpr CK_ULONG maxSlots = 1024;

void readOffered(TokenFacts& facts) {
#define KESTREL_OFFERED(name) \
  facts.offered[static_cast<std::size_t>(FunctionId::name)] = p11::name.pointer() != nullptr;
  KESTREL_PKCS11_FUNCTIONS(KESTREL_OFFERED, KESTREL_OFFERED)
  KESTREL_PKCS11_FUNCTIONS_3_0(KESTREL_OFFERED, KESTREL_OFFERED)
#undef KESTREL_OFFERED
}

void readMechanisms(Bench& bench, TokenFacts& facts) {
  if (!facts.known) bench.notApplicable("no token");
  auto* const count = bench.memory.out<CK_ULONG>(0);
  bench.control(p11::C_GetMechanismList(facts.slot, nullptr, count));
  if (*count > maxMechanisms) bench.wrong("lists more mechanisms than there can be");
  // A module that ignores the room is a finding of the checks of that, and not the end of all.
  auto* const types = bench.memory.out<CK_MECHANISM_TYPE>(0, maxMechanisms);
  *count = maxMechanisms;
  bench.control(p11::C_GetMechanismList(facts.slot, types, count));
  auto* const info = bench.memory.out(CK_MECHANISM_INFO{});
  for (std::size_t i = 0; i < *count; ++i) {
    *info = {};  // there are modules that add flags to those that they find
    const CK_RV result = p11::C_GetMechanismInfo(facts.slot, types[i], info);
    facts.mechanisms[i] = {types[i], *info, result};
  }
  facts.mechanismCount = *count;
  facts.mechanismsKnown = true;
}

// `library` is what the module says of itself.
bool isMeant(Bench& bench, const TokenPattern& wanted, const CK_INFO& library, CK_SLOT_ID slot,
             const CK_TOKEN_INFO& token) {
  if (!wanted.matches(library) || !wanted.matches(slot, token)) return false;
  auto* const reader = bench.memory.out(CK_SLOT_INFO{});
  return !wanted.tellsSlot() ||
         (p11::C_GetSlotInfo(slot, reader) == CKR_OK && wanted.matches(*reader));
}

void findToken(Bench& bench, Board& board, const std::optional<TokenPattern>& wanted) {
  TokenFacts& facts = board.facts;
  auto* const info = bench.memory.out(CK_INFO{});
  bench.control(p11::C_GetInfo(info));
  facts.version = info->cryptokiVersion;
  auto* const count = bench.memory.out<CK_ULONG>(maxSlots);
  auto* const slots = bench.memory.out<CK_SLOT_ID>(0, maxSlots);
  bench.control(p11::C_GetSlotList(CK_TRUE, slots, count));
  auto* const token = bench.memory.out(CK_TOKEN_INFO{});
  for (CK_ULONG i = 0; i < *count; ++i) {
    if (p11::C_GetTokenInfo(slots[i], token) != CKR_OK) continue;
    if (wanted && !isMeant(bench, *wanted, *info, slots[i], *token)) continue;
    facts.slot = slots[i];
    facts.flags = token->flags;
    facts.readOnly = (token->flags & CKF_WRITE_PROTECTED) != 0;
    facts.label.fill('\0');
    std::ranges::copy(trimmed(token->label), facts.label.begin());
    readOffered(facts);
    facts.known = true;
    return;
  }
  bench.end(Verdict::notApplicable, *count == 0 ? "no token" : "no such token");
}

std::uint64_t countTokenObjects(Bench& bench) {
  constexpr std::size_t enough = 100000;
  Template wanted(bench.memory);
  wanted.add(CKA_TOKEN, true);
  return findObjects(bench.session, wanted, enough).size();
}

void removeOwnObjects(Bench& bench) {
  constexpr std::size_t enough = 10000;
  Template ours(bench.memory);
  ours.add(CKA_TOKEN, true).add(CKA_LABEL, ownLabel);
  for (const CK_OBJECT_HANDLE object : findObjects(bench.session, ours, enough)) {
    bench.expect(p11::C_DestroyObject(bench.session, object));
  }
}

Check step(const char* name, Stage stage, std::function<void(Bench&)> run) {
  return {std::string("start/") + name, stage, {CKR_OK}, name, std::move(run)};
}

}  // namespace

Plan planToken(Board& board, const std::optional<TokenPattern>& wanted) {
  const auto nothing = [](Bench&) {};
  return {step("C_GetFunctionList", Stage::loaded, nothing),
          step("C_Initialize", Stage::initialized, nothing),
          step("C_GetTokenInfo", Stage::initialized,
               [&](Bench& bench) { findToken(bench, board, wanted); }),
          step("C_GetMechanismList", Stage::initialized,
               [&](Bench& bench) { readMechanisms(bench, board.facts); })};
}

Plan planLogin(Board& board) {
  const auto nothing = [](Bench&) {};
  return {step("C_OpenSession", Stage::session, nothing), step("C_Login", Stage::user, nothing),
          step("C_FindObjects", Stage::user,
               [&](Bench& bench) { board.objectsBefore = countTokenObjects(bench); })};
}

Plan planObjects(Board& board, bool leaves) {
  Check count{"watch/token-objects", Stage::user, {CKR_OK}, "C_CreateObject"};
  count.run = [&](Bench& bench) {
    const std::uint64_t now = countTokenObjects(bench);
    if (now == board.objectsBefore) return;
    bench.wrong(fmt::format("{} objects on the token, {} before", now, board.objectsBefore.load()));
  };
  if (!leaves) return {count};
  return {{"watch/own-objects", Stage::user, {CKR_OK}, "C_DestroyObject", removeOwnObjects}, count};
}

std::vector<std::pair<Check, Finding>> watchedFunctions(const Board& board) {
  std::vector<std::pair<Check, Finding>> watched;
  const std::size_t noted = std::min<std::size_t>(board.oddCount, Board::maxOdd);
  for (std::size_t i = 0; i < functionCount; ++i) {
    if (!board.called[i]) continue;
    const auto id = static_cast<FunctionId>(i);
    Finding finding{Verdict::ok, nameOf(id), {}, ""};
    for (std::size_t n = 0; n < noted; ++n) {
      const OddReturn odd = board.odd[n];
      if (odd.function != id || finding.verdict == Verdict::deviates) continue;
      const Listing listing = listingOf(id, odd.value, board.facts.version.major >= 3);
      finding.verdict = listing == Listing::unlisted ? Verdict::vague : Verdict::deviates;
      finding.value = odd.value;
      finding.detail = listing == Listing::undefined   ? "no value of PKCS #11"
                       : listing == Listing::elsewhere ? "a value of other functions alone"
                                                       : "not in the function's list";
      const std::string check(odd.check.begin(), std::ranges::find(odd.check, '\0'));
      finding.detail += fmt::format(", in {}", check);
    }
    watched.emplace_back(
        Check{fmt::format("watch/{}", nameOf(id)), Stage::loaded, {CKR_OK}, nameOf(id)}, finding);
  }
  return watched;
}

}  // namespace kestrel::probe
