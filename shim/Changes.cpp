#include "shim/Changes.h"

#include <atomic>
#include <cstdio>

#include "shim/Lists.h"
#include "shim/Shim.h"
#include "shim/SigningMechanisms.h"
#include "shim/StepIn.h"

void nameOverrun(const char* function, CK_ULONG count, CK_ULONG room) {
  static std::atomic_flag said;
  if (said.test_and_set()) return;
  std::fprintf(stderr,
               "kestrel-shim: %s answers with %lu entries where it was told of room for %lu\n",
               function, count, room);
}

namespace {

// The slot that kestrel names in some calls whichever is under test.
constexpr CK_SLOT_ID fixedSlot = 1;

// Some modules take their parameters behind the flags, before what is reserved, others as that.
struct InitializeArguments {
  CK_C_INITIALIZE_ARGS standard;
  void* reserved;
};

CK_RV initializeWithArguments(void* arguments) {
  InitializeArguments own{};
  own.standard.flags = CKF_OS_LOCKING_OK;
  own.standard.pReserved = const_cast<char*>(shim.settings.initArguments);
  return ask(&CK_FUNCTION_LIST::C_Initialize, arguments == nullptr ? &own : arguments);
}

bool isShown(CK_SLOT_ID slot) {
  const TokenPattern& pattern = *shim.settings.token;
  CK_TOKEN_INFO token{};
  if (ask(&CK_FUNCTION_LIST::C_GetTokenInfo, slot, &token) != CKR_OK) return false;
  if (!pattern.matches(slot, token)) return false;
  CK_SLOT_INFO reader{};
  if (pattern.tellsSlot() && (ask(&CK_FUNCTION_LIST::C_GetSlotInfo, slot, &reader) != CKR_OK ||
                              !pattern.matches(reader))) {
    return false;
  }
  CK_INFO library{};
  return !pattern.tellsLibrary() ||
         (ask(&CK_FUNCTION_LIST::C_GetInfo, &library) == CKR_OK && pattern.matches(library));
}

CK_RV listSlots(CK_BBOOL tokenPresent, CK_SLOT_ID* list, CK_ULONG* count) {
  const auto askFor = [tokenPresent](CK_SLOT_ID* ids, CK_ULONG* number) {
    return ask(&CK_FUNCTION_LIST::C_GetSlotList, tokenPresent, ids, number);
  };
  if (!shim.settings.token) return askFor(list, count);
  const CK_RV result = listFiltered(list, count, "C_GetSlotList", askFor, isShown);
  if (result == CKR_OK && count != nullptr && *count == 0) {
    std::fputs("kestrel-shim: no token matches KESTREL_SHIM_TOKEN\n", stderr);
  }
  return result;
}

bool isListed(CK_SLOT_ID slot, CK_MECHANISM_TYPE type) {
  const MechanismList& wanted = *shim.settings.mechanisms;
  if (std::ranges::count(wanted.without, type) != 0) return false;
  if (wanted.types.empty() && !wanted.signable && !wanted.multipart) return true;
  if (std::ranges::count(wanted.types, type) != 0) return true;
  const SigningMechanism* const row = findSigningMechanism(type);
  if (row == nullptr || !(wanted.signable || (wanted.multipart && row->inParts))) return false;
  CK_MECHANISM_INFO info{};
  return ask(&CK_FUNCTION_LIST::C_GetMechanismInfo, slot, type, &info) == CKR_OK &&
         (info.flags & CKF_SIGN) != 0;
}

CK_RV listMechanismsOf(CK_SLOT_ID slot, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  const auto askFor = [slot](CK_MECHANISM_TYPE* types, CK_ULONG* number) {
    return ask(&CK_FUNCTION_LIST::C_GetMechanismList, slot, types, number);
  };
  if (!shim.settings.mechanisms) return askFor(list, count);
  return listFiltered(list, count, "C_GetMechanismList", askFor,
                      [slot](CK_MECHANISM_TYPE type) { return isListed(slot, type); });
}

// Asks for `slot`; where it is the fixed one, is not listed and is refused, for the first that is.
// No token in a slot that there is not is a refusal as well.
template <typename Ask>
CK_RV askForSlot(CK_SLOT_ID slot, Ask ask) {
  const CK_RV result = ask(slot);
  const bool refused = isRefusal(result) || result == CKR_TOKEN_NOT_PRESENT;
  if (!refused || slot != fixedSlot || !shim.settings.waives(Waiver::fixedSlot)) return result;
  Items<CK_SLOT_ID> slots;
  const CK_RV listed = fetch(slots, "C_GetSlotList", [](CK_SLOT_ID* list, CK_ULONG* count) {
    return listSlots(CK_FALSE, list, count);
  });
  if (listed != CKR_OK || slots.count == 0 || std::ranges::count(slots, slot) != 0) return result;
  const CK_RV again = stepIn(Waiver::fixedSlot, [&] { return ask(*slots.begin()); });
  return again == CKR_OK ? again : result;
}

CK_RV listMechanisms(CK_SLOT_ID slot, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  const auto room = valueAt<CK_ULONG>(count);
  return askForSlot(slot, [&](CK_SLOT_ID id) {
    if (room) *count = *room;
    return listMechanismsOf(id, list, count);
  });
}

CK_RV describeMechanism(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
  return askForSlot(slot, [&](CK_SLOT_ID id) {
    return ask(&CK_FUNCTION_LIST::C_GetMechanismInfo, id, type, info);
  });
}

CK_RV closeAllSessions(CK_SLOT_ID slot) {
  return askForSlot(slot,
                    [](CK_SLOT_ID id) { return ask(&CK_FUNCTION_LIST::C_CloseAllSessions, id); });
}

CK_RV setPin(CK_SESSION_HANDLE session, CK_UTF8CHAR* oldPin, CK_ULONG oldLength,
             CK_UTF8CHAR* newPin, CK_ULONG newLength) {
  const auto askIn = [&](CK_SESSION_HANDLE handle) {
    return ask(&CK_FUNCTION_LIST::C_SetPIN, handle, oldPin, oldLength, newPin, newLength);
  };
  CK_RV result = askIn(session);
  if (result != CKR_SESSION_READ_ONLY) return result;
  stepIn(Waiver::readOnly, [&] {
    CK_SESSION_INFO info{};
    CK_SESSION_HANDLE writable = 0;
    CK_RV opened = ask(&CK_FUNCTION_LIST::C_GetSessionInfo, session, &info);
    if (opened == CKR_OK) {
      opened = ask(&CK_FUNCTION_LIST::C_OpenSession, info.slotID,
                   CK_FLAGS{CKF_SERIAL_SESSION | CKF_RW_SESSION}, nullptr, nullptr, &writable);
    }
    if (opened != CKR_OK) return opened;
    result = askIn(writable);
    ask(&CK_FUNCTION_LIST::C_CloseSession, writable);
    return result;
  });
  return result;
}

}  // namespace

CK_FUNCTION_LIST changesFor(const Settings& settings) {
  CK_FUNCTION_LIST list{};
  const bool fixed = settings.waives(Waiver::fixedSlot);
  if (settings.initArguments != nullptr) list.C_Initialize = initializeWithArguments;
  if (settings.token) list.C_GetSlotList = listSlots;
  if (settings.mechanisms || fixed) list.C_GetMechanismList = listMechanisms;
  if (fixed) list.C_GetMechanismInfo = describeMechanism;
  if (fixed) list.C_CloseAllSessions = closeAllSessions;
  if (settings.waives(Waiver::readOnly)) list.C_SetPIN = setPin;
  if (settings.waives(Waiver::lengthQuery) || settings.waives(Waiver::saltLength)) {
    addSignatureChanges(list);
  }
  return list;
}
