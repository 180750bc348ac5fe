// What the shim changes when it is told to. The waivers first ask as kestrel asked and step in only
// when the module refuses; where that does not help, kestrel gets the module's first answer:
//
//   length-query  C_Sign for the length alone, which comes without data, is asked with 32 bytes, if
//                 need be after a new C_SignInit
//   salt-length   C_SignInit with a PSS salt length of all ones is asked with the digest's length;
//                 also when C_Sign is what refuses it
//   fixed-slot    slot 1 in C_GetMechanismList, C_GetMechanismInfo and C_CloseAllSessions, where it
//                 is not listed, is the first slot that is
//   read-only     C_SetPIN in a read-only session is asked in a session that may write; of this one
//                 the second answer stands, a wrong PIN having cost a try by then
//
// What negativeTests asks is no matter of these: its wrong answers stay.
#pragma once

#include "shim/Settings.h"

// The functions that stand before the module's with these settings; the others are null.
CK_FUNCTION_LIST changesFor(const Settings& settings);

// Adds those of the two waivers of signatures.
void addSignatureChanges(CK_FUNCTION_LIST& list);
