// What the two decryption tests share: the message, its encryption with OpenSSL, and the walk over
// keys and mechanisms. Each test adds only its mechanisms and its way of decrypting.
#pragma once

#include <openssl/rsa.h>

#include <optional>
#include <span>
#include <vector>

#include "harness/Module.h"
#include "harness/TestManager.h"

namespace kestrel {

// A mechanism that the token decrypts with, and OpenSSL's padding of the same kind.
struct DecryptionMechanism {
  CK_MECHANISM_TYPE type;
  int opensslPadding;
  std::optional<CK_RSA_PKCS_OAEP_PARAMS> parameters = {};
};

inline constexpr DecryptionMechanism rsaPkcs{CKM_RSA_PKCS, RSA_PKCS1_PADDING};

// What the token decrypted.
struct Plaintext {
  std::vector<CK_BYTE> storage;
  CK_ULONG room = 0;    // the longest length that the module asked for
  CK_ULONG length = 0;  // as the module left it
};

// C_Decrypt and C_DecryptUpdate take the same arguments.
using DecryptFunction = decltype(p11::C_Decrypt);

// How a test has the token decrypt.
struct DecryptionWay {
  std::span<const DecryptionMechanism> mechanisms;
  DecryptFunction& decrypt;
  void (*finish)(CK_SESSION_HANDLE, Plaintext&);  // what follows `decrypt`; shows the plaintext
};

// Walks the keys of one token and a test's mechanisms, and has the token decrypt the message with
// each. Returns all ones for a message too long.
CK_RV decryptEach(TestManager& manager, const DecryptionWay& way, CK_SESSION_HANDLE session,
                  std::uint32_t slotPosition);

}  // namespace kestrel
