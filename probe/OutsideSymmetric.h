// Digests, MACs and ciphers of the other side.
#pragma once

#include "probe/Outside.h"

namespace kestrel::probe::outside {

// Algorithms by OpenSSL's names: "SHA512-256", "AES-128-CBC".
Bytes digest(const char* name, View data);

Bytes hmac(const char* digest, View key, View data);
Bytes cmac(const char* cipher, View key, View data);
Bytes gmac(const char* cipher, View key, View iv, View data);
Bytes poly1305(View key, View data);

// The MAC of FIPS 113: the last block of CBC with an IV of zeros, the data filled up with zeros.
Bytes cbcMac(const char* cipher, View key, View data);

// The MAC of RFC 3566, for a key of 16 bytes.
Bytes xcbcMac(View key, View data);

struct Cipher {
  std::string name;
  Bytes key = {}, iv = {};
  bool padded = false;
  Bytes aad = {};
  std::size_t tagLength = 0;       // of one that authenticates: the tag stands behind the data
  const char* stealing = nullptr;  // which of CBC's three ways to steal: "CS1"
};

Bytes encrypt(const Cipher& cipher, View data);

// Throws where the data is none of this cipher's.
Bytes decrypt(const Cipher& cipher, View data);

}  // namespace kestrel::probe::outside
