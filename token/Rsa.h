// The RSA operations of the software token, done by libcrypto.
#pragma once

#include "token/Call.h"

// Bytes of the key's modulus.
CK_ULONG keySize(const Key& key);

// CKR_OK for a known mechanism with a parameter of the size that it wants. PSS salts are as long as
// the digest, whatever the parameter says.
CK_RV checkMechanism(const CK_MECHANISM& mechanism);

// What the session's operation yields; `result` says how it went.
std::string signatureOf(const Session& session, CK_RV& result);
std::string plaintext(const Session& session, CK_RV& result);
