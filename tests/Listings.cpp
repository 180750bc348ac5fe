// libInfo, listSlots and listTokens: what the module says of itself, its slots and its tokens.
// The operator sees each call's report line and the texts as the module padded them.

#include "harness/Report.h"
#include "harness/Slots.h"
#include "harness/TestManager.h"
#include "harness/Text.h"

namespace kestrel {

CK_RV TestManager::libInfo() {
  report << "Test1 - load library...\n";
  CK_INFO info{};
  require(p11::C_GetInfo, &info);
  const std::string_view description =
      fullText(info.libraryDescription).substr(0, maxDescriptionLength);
  report << "Library Description: " << description.substr(0, description.find('\0')) << "\n";
  // A version of two parts shown as one of four: reports of all releases read so.
  report << std::dec << "Library Version: " << int{info.libraryVersion.major} << ".0.0."
         << int{info.libraryVersion.minor} << "\n";
  return CKR_OK;
}

CK_RV TestManager::listSlots() {
  report << "Test2 - list slots...\n";
  populateSlotList();
  CK_SLOT_INFO info{};
  for (const CK_SLOT_ID slot : slots()) {
    requireSlotInfo(slot, info);
    report << "SlotDescription: " << runOnDescription(info) << "\n";
  }
  return CKR_OK;
}

CK_RV TestManager::listTokens() {
  report << "Test3 - list tokens...\n";
  populateSlotList();
  bool tokenFound = false;
  CK_SLOT_INFO info{};
  for (CK_ULONG i = 0; i < slotCount; ++i) {
    requireSlotInfo(slotList[i], info);
    report << "SlotDescription: " << runOnDescription(info) << "\n";
    if (!holdsToken(info)) {
      reportEmptySlot(tokenFound, i + 1 == slotCount);
      continue;
    }
    tokenFound = true;
    report << "Token present in slot " << i + 1 << "\n";
    CK_TOKEN_INFO token{};
    require(p11::C_GetTokenInfo, slotList[i], &token);
    report << "token label: " << fullText(token.label) << "\n"
           << "manufacter ID: " << fullText(token.manufacturerID) << "\n";
  }
  return CKR_OK;
}

}  // namespace kestrel
