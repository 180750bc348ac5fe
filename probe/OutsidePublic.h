// Signatures, encryption and agreement with the key pairs of the other side.
#pragma once

#include "probe/Outside.h"

namespace kestrel::probe::outside {

// How data becomes a signature, and what the signature is made of: for DSA and ECDSA the two
// numbers side by side, as PKCS #11 has it.
struct SignatureForm {
  enum class Kind { pkcs1, pss, raw, numbers, pure };
  Kind kind;
  const char* digest = nullptr;  // null where there is none
  bool hashes = false;           // the data is hashed; else it is the hash already
  const char* mgf = nullptr;     // of PSS: the digest of its mask
  int saltLength = 0;
};

Bytes sign(EVP_PKEY* key, const SignatureForm& form, View data);
bool verifies(EVP_PKEY* key, const SignatureForm& form, View data, View signature);

struct RsaForm {
  enum class Kind { pkcs1, oaep, raw };
  Kind kind;
  const char* digest = nullptr;  // of OAEP
  const char* mgf = nullptr;
  View label = {};
};

Bytes encrypt(EVP_PKEY* key, const RsaForm& form, View data);

// Throws where the data is none of this key's.
Bytes decrypt(EVP_PKEY* key, const RsaForm& form, View data);

// The secret that two keys agree on.
Bytes agree(EVP_PKEY* own, EVP_PKEY* peer);

// PrivateKeyInfo of PKCS #8 in DER, and back; null for what is none.
Bytes privateKeyInfo(EVP_PKEY* key);
OutsideKey keyOfInfo(View info);

}  // namespace kestrel::probe::outside
