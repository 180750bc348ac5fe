// What the shim changes when it is told to. The waivers first ask as kestrel asked and step in only
// when the module refuses; where that does not help, kestrel gets the module's first answer:
//
//   length-query  C_Sign for the length alone, which comes without data, is asked with 32 bytes, if
//                 need be after a new C_SignInit
//   salt-length   C_SignInit with a PSS salt length of all ones is asked with the digest's length;
//                 also when C_Sign is what refuses it
//   fixed-slot    slot 1 in C_GetMechanismList, C_GetMechanismInfo and C_CloseAllSessions, where it
//                 is not listed, is the first slot that is
//   read-only     C_SetPIN in a read-only session is asked in a session that may write
//
// What negativeTests asks is no matter of these: its wrong answers stay.
#pragma once

#include "harness/Pkcs11.h"

CK_RV initialize(void* arguments);
CK_RV listSlots(CK_BBOOL tokenPresent, CK_SLOT_ID* list, CK_ULONG* count);
CK_RV listMechanisms(CK_SLOT_ID slot, CK_MECHANISM_TYPE* list, CK_ULONG* count);
CK_RV describeMechanism(CK_SLOT_ID slot, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info);
CK_RV closeAllSessions(CK_SLOT_ID slot);
CK_RV setPin(CK_SESSION_HANDLE session, CK_UTF8CHAR* oldPin, CK_ULONG oldLength,
             CK_UTF8CHAR* newPin, CK_ULONG newLength);
CK_RV beginSignature(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key);
CK_RV sign(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG length, CK_BYTE* signature,
           CK_ULONG* signatureLength);

// The entries that may differ from the module's; the others are null.
inline constexpr CK_FUNCTION_LIST changes = [] {
  CK_FUNCTION_LIST list{};
  list.C_Initialize = initialize;
  list.C_GetSlotList = listSlots;
  list.C_GetMechanismList = listMechanisms;
  list.C_GetMechanismInfo = describeMechanism;
  list.C_CloseAllSessions = closeAllSessions;
  list.C_SetPIN = setPin;
  list.C_SignInit = beginSignature;
  list.C_Sign = sign;
  return list;
}();
