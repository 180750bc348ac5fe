#include "harness/Slots.h"

#include "harness/Report.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

constexpr CK_ULONG maxSlots = CK_ULONG{1} << 20;  // 8 MiB of IDs; more is no answer

}  // namespace

bool fetchSlotList(std::unique_ptr<CK_SLOT_ID[]>& list, CK_ULONG& count) {
  count = 0;
  CK_RV result = p11::C_GetSlotList(CK_FALSE, nullptr, &count);
  requireResult("C_GetSlotList", ifSane(result, count <= maxSlots));
  if (count == 0) return false;
  const CK_ULONG room = count;
  list = std::make_unique<CK_SLOT_ID[]>(room);
  result = p11::C_GetSlotList(CK_FALSE, list.get(), &count);
  requireResult("C_GetSlotList", ifSane(result, count <= room));
  return true;
}

std::optional<SlotList> fetchOwnSlotList() {
  SlotList list;
  if (fetchSlotList(list.ids, list.count)) return list;
  report << "Card reader not detected. Exiting.";
  return std::nullopt;
}

CK_RV TestManager::populateSlotList() {
  report << "populateSlotList\n";
  if (!fetchSlotList(slotList, slotCount)) {
    report << "No Card Readers detected.\n";
    endProgram(1);
  }
  return CKR_OK;
}

void requireSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO& info) {
  require(p11::C_GetSlotInfo, slot, &info);
}

void reportEmptySlot(bool tokenFound, bool lastSlot) {
  constexpr char rule[] = "##########################################\n\n";
  report << rule << "*********** TOKEN NOT PRESENT ************\n\n" << rule;
  if (lastSlot && !tokenFound) endProgram(1);
}

void PresentTokens::Iterator::skipEmptySlots() {
  for (; position_ < slots_.size(); ++position_) {
    requireSlotInfo(slots_[position_], info_);
    if (holdsToken(info_)) return;
  }
}

CK_SESSION_HANDLE openSession(CK_SLOT_ID slot, CK_SESSION_HANDLE unset) {
  CK_SESSION_HANDLE session = unset;
  require(p11::C_OpenSession, slot, CKF_SERIAL_SESSION, nullptr, nullptr, &session);
  return session;
}

void logoutAndClose(CK_SESSION_HANDLE session) {
  require(p11::C_Logout, session);
  require(p11::C_CloseSession, session);
}

}  // namespace kestrel
