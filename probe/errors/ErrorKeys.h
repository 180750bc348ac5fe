// Keys from outside, one of each kind, that may do one thing or may not.
#pragma once

#include "probe/Kits.h"

namespace kestrel::probe {

enum class KeyKind { aes, generic, rsaPublic, rsaPrivate, ecPublic, ecPrivate };

// "AES-key"
const char* nameOf(KeyKind kind);

// A session object. The check is not applicable where the token takes none.
CK_OBJECT_HANDLE makeKey(Bench& bench, KeyKind kind, CK_ATTRIBUTE_TYPE permission, bool permitted);

// The attribute by which a key may do what a kind of operation needs.
CK_ATTRIBUTE_TYPE permissionFor(Kind kind);

}  // namespace kestrel::probe
