// A key pair and its certificate on a token.
#pragma once

#include <cstdint>
#include <string>

#include "harness/Pkcs11.h"

namespace kestrel {

// One private key found on a token, and the objects of the same CKA_ID. A value: tests copy it.
struct CertKeyRecord {
  CK_OBJECT_HANDLE publicKeyHandle = 0;    // 0 when the token has none
  CK_OBJECT_HANDLE privateKeyHandle = 0;   // the key that the tests sign and decrypt with
  CK_OBJECT_HANDLE certificateHandle = 0;  // 0 when the token has none
  std::string certificateValue;            // the certificate's DER bytes
  std::uint32_t slotIndex = 0;             // position in the slot list, from 0
};

}  // namespace kestrel
