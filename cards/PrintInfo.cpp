// printInfo: what the module, the readers and the tokens say of themselves, and each card's name by
// its ATR. The operator sees these texts alone: its PKCS#11 calls are neither checked nor reported.

#include "cards/ReaderQuery.h"
#include "harness/Module.h"
#include "harness/Slots.h"
#include "harness/TestManager.h"
#include "harness/Text.h"

namespace kestrel {

namespace {

void printModule() {
  CK_INFO info{};
  p11::C_GetInfo(&info);
  report << "-> LIBRARY DESCRIPTION: " << fullText(info.libraryDescription) << "\n"
         << "-> LIBRARY VERSION: " << std::dec << int{info.libraryVersion.major} << ".0.0."
         << int{info.libraryVersion.minor} << "\n";
}

// The card as the PC/SC service knows it. The reader is found by the slot's position.
void printCard(CK_ULONG position, std::span<const KnownCard> cards) {
  report << "(directly from TestManager)\n";
  std::int32_t match = -1;
  if (queryReaderAtr(match, static_cast<std::uint32_t>(position), cards) != 0) {
    report << "-> WARNING: Card not found\n";
    return;
  }
  const KnownCard& card = cards[static_cast<std::size_t>(match)];
  report << "-> MATCHING ATR: " << card.atr << "\n"
         << "-> FULL HARDWARE NAME: " << card.cardName << "\n";
}

CK_RV printToken(CK_SLOT_ID slot) {
  CK_TOKEN_INFO info{};
  const CK_RV result = p11::C_GetTokenInfo(slot, &info);
  report << "(funneled through pkcs11)\n";
  if (info.manufacturerID[0] != ' ') {
    report << "-> CARD HARDWARE NAME: " << fullText(info.manufacturerID) << "\n";
  }
  report << "-> APPLET: " << fullText(info.model) << "\n"
         << "-> TOKEN LABEL: " << fullText(info.label) << "\n";
  return result;
}

}  // namespace

CK_RV TestManager::printInfo() {
  report << "Test test - print info...\n";
  printModule();
  printOpensslVersion();  // leaves the stream hexadecimal: the slots are counted in that base
  CK_RV result = populateSlotList();
  bool tokenFound = false;
  CK_SLOT_INFO info{};  // a slot that does not answer shows what the slot before it said
  for (CK_ULONG i = 0; i < slotCount; ++i) {
    result = p11::C_GetSlotInfo(slotList[i], &info);
    report << "\n-> READER NAME: " << runOnDescription(info) << "\n";
    if (!holdsToken(info)) {
      reportEmptySlot(tokenFound, i + 1 == slotCount);
      continue;
    }
    tokenFound = true;
    report << "Token present in slot " << i + 1 << "\n";
    printCard(i, knownCards);
    result = printToken(slotList[i]);
  }
  return result;
}

}  // namespace kestrel
