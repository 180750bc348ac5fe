// The keys of the software token and what it does with them, by libcrypto.
#pragma once

#include <string>
#include <string_view>

#include "token/State.h"

namespace kestrel::token {

// A key pair, loaded once.
EVP_PKEY* keyPair(const Key& key);

// Bytes of the key's modulus.
CK_ULONG keySize(const Key& key);

// What the key makes of a message or its digest, and of a ciphertext.
CK_RV signatureOf(const Key& key, const Scheme& scheme, std::string_view data, std::string& out);
CK_RV plaintextOf(const Key& key, const Scheme& scheme, std::string_view data, std::string& out);

}  // namespace kestrel::token
