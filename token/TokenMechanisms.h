// The mechanisms of the software token.
#pragma once

#include <vector>

#include "token/State.h"

namespace kestrel::token {

// What C_GetMechanismList lists of a token.
std::vector<CK_MECHANISM_TYPE> mechanismsOf(const Slot& slot);

// Whether a token has a mechanism, and what it does with it: CKF_SIGN, CKF_DECRYPT.
bool hasMechanism(const Slot& slot, CK_MECHANISM_TYPE type);
CK_FLAGS usesOf(CK_MECHANISM_TYPE type);

// What a mechanism comes to when a key of `keySize` bytes is put to `use`. A salt length of all
// ones is that of the digest.
CK_RV readMechanism(const CK_MECHANISM& mechanism, CK_FLAGS use, CK_ULONG keySize, Scheme& scheme);

// Whether that is how the mechanism leaves the salt's length to the token.
bool leavesSaltLengthOpen(const CK_MECHANISM* mechanism);

}  // namespace kestrel::token
