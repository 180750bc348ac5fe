// The one place that makes keys. They are made once a process, in a session that stays open, by
// whichever way the token has: it generates them, or takes them from outside, or has one already.
// No check changes them.
#pragma once

#include <map>
#include <string>
#include <tuple>

#include "probe/Attributes.h"
#include "probe/Check.h"
#include "probe/Outside.h"

namespace kestrel::probe {

// What a key may do, as a set.
using Usage = unsigned;
inline constexpr Usage canEncrypt = 1, canDecrypt = 2, canSign = 4, canVerify = 8, canWrap = 16,
                       canUnwrap = 32, canDerive = 64, canSignRecover = 128, canVerifyRecover = 256;
inline constexpr Usage canCipher = canEncrypt | canDecrypt;
inline constexpr Usage canMac = canSign | canVerify;
inline constexpr Usage canCarry = canWrap | canUnwrap;

// The token has no such key and makes none.
struct NoKey {
  std::string why;
};

struct SecretKey {
  CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
  Bytes value;  // known outside too
};

struct KeyPair {
  CK_OBJECT_HANDLE publicKey = CK_INVALID_HANDLE, privateKey = CK_INVALID_HANDLE;
  OutsideKey outside;  // the public key at least
};

// The curves, as PKCS #11 and as OpenSSL name them.
struct Curve {
  const char* name;             // OpenSSL's group, or type for the last ones
  std::string_view parameters;  // CKA_EC_PARAMS: the object identifier in DER
  CK_ULONG bits;
  CK_MECHANISM_TYPE generation;
  CK_KEY_TYPE type;
};

extern const Curve p256, p384, p521, ed25519, x25519;

class Keys {
 public:
  Keys(Memory& memory, const TokenFacts& token) : memory_(memory), token_(token) {}

  void useSession(CK_SESSION_HANDLE session) { session_ = session; }

  // A secret key of `length` bytes whose value is known. Throws NoKey, as all of these.
  const SecretKey& secret(CK_KEY_TYPE type, CK_ULONG length, Usage usage);

  // A key pair that may do `usage`, each key its part of it.
  const KeyPair& rsa(Usage usage, CK_ULONG bits = 2048);
  const KeyPair& ec(const Curve& curve, Usage usage);

  // A public key of OpenSSL's as an object of the session `session`.
  CK_OBJECT_HANDLE importPublic(CK_SESSION_HANDLE session, EVP_PKEY* key, Usage usage);

  // A secret key of this value as an object of `session`.
  CK_OBJECT_HANDLE importSecret(CK_SESSION_HANDLE session, CK_KEY_TYPE type, View value,
                                Usage usage);

 private:
  SecretKey makeSecret(CK_KEY_TYPE type, CK_ULONG length, Usage usage);
  KeyPair makePair(CK_MECHANISM_TYPE generation, Template& publicKey, Usage usage);
  OutsideKey readRsa(CK_OBJECT_HANDLE publicKey) const;
  OutsideKey readEc(CK_OBJECT_HANDLE publicKey, const Curve& curve) const;
  CK_OBJECT_HANDLE create(CK_SESSION_HANDLE session, const Template& attributes) const;

  Memory& memory_;
  const TokenFacts& token_;
  CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
  std::map<std::tuple<CK_KEY_TYPE, CK_ULONG, Usage>, SecretKey> secrets_;
  std::map<std::tuple<CK_KEY_TYPE, CK_ULONG, Usage>, KeyPair> pairs_;
};

}  // namespace kestrel::probe
