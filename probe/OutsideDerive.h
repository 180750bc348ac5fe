// Derivation of keys on the other side.
#pragma once

#include "probe/Outside.h"

namespace kestrel::probe::outside {

Bytes x963(const char* digest, View secret, View info, std::size_t length);

struct Hkdf {
  const char* digest;
  bool extracts, expands;
  View salt, info;
};
Bytes hkdf(const Hkdf& form, View key, std::size_t length);

// SP800-108 with an HMAC, a counter of 32 bits, and Label || 0 || Context || [bits] of 32 bits.
enum class KbkdfMode { counter, feedback, pipeline };
struct Kbkdf {
  KbkdfMode mode;
  const char* digest;
  View label, context;
};
Bytes kbkdf(const Kbkdf& form, View key, std::size_t length);

}  // namespace kestrel::probe::outside
