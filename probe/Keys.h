// The one place that makes keys. They are made once a process, in a session that stays open, by
// whichever way the token has: it generates them, or takes them from outside, or has one already.
// No check changes them.
#pragma once

#include <map>
#include <string>
#include <tuple>

#include "probe/Check.h"
#include "probe/Outside.h"
#include "probe/Templates.h"
#include "run/process/Pins.h"

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
  // The public one is invalid where a token has the private key alone, and takes no public one.
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
  std::string_view otherParameters = {};  // the name of the curve, which some tokens want
};

extern const Curve p256, p384, p521, ed25519, ed448, x25519, x448;

class Keys {
 public:
  Keys(Memory& memory, const TokenFacts& token) : memory_(memory), token_(token) {}

  void useSession(CK_SESSION_HANDLE session) { session_ = session; }

  // For keys that want a login of their own for each use. `pin` may be null.
  void useLogin(Board& board, const Pin* pin) {
    board_ = &board;
    pin_ = pin;
  }

  // A secret key of `length` bytes whose value is known. Throws NoKey, as all of these.
  const SecretKey& secret(CK_KEY_TYPE type, CK_ULONG length, Usage usage);

  // A key pair that may do `usage`, each key its part of it. One that the token had already may be
  // of another length.
  const KeyPair& rsa(Usage usage, CK_ULONG bits = 2048);
  const KeyPair& ec(const Curve& curve, Usage usage);
  const KeyPair& dsa(Usage usage);
  const KeyPair& dh(Usage usage);

  // An RSA key of OpenSSL's, which lasts.
  EVP_PKEY* outsideRsa();

  // A public key of OpenSSL's as an object of the session `session`.
  CK_OBJECT_HANDLE importPublic(CK_SESSION_HANDLE session, EVP_PKEY* key, Usage usage);

  // A secret key of this value as an object of `session`.
  CK_OBJECT_HANDLE importSecret(CK_SESSION_HANDLE session, CK_KEY_TYPE type, View value,
                                Usage usage);

  // To be called when an operation with a private key has begun: some keys want the PIN then. What
  // came of it; CKR_OK where nothing was wanted.
  CK_RV authenticate(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE key);

 private:
  struct Wanted {  // a pair
    CK_KEY_TYPE type;
    CK_ULONG bits;
    CK_MECHANISM_TYPE generation;
    Usage usage;
    const Curve* curve;
  };

  SecretKey makeSecret(CK_KEY_TYPE type, CK_ULONG length, Usage usage);
  std::optional<SecretKey> generateSecret(CK_KEY_TYPE type, CK_ULONG length, Usage usage);
  std::optional<Bytes> reveal(CK_OBJECT_HANDLE secret);

  const KeyPair& pair(const Wanted& wanted);
  KeyPair generate(const Wanted& wanted);
  KeyPair import(const Wanted& wanted);
  KeyPair find(const Wanted& wanted);
  OutsideKey readPublic(const Wanted& wanted, CK_OBJECT_HANDLE publicKey) const;
  KeyPair pairOf(const Wanted& wanted, CK_OBJECT_HANDLE privateKey);
  CK_OBJECT_HANDLE create(CK_SESSION_HANDLE session, const Template& attributes) const;

  Memory& memory_;
  const TokenFacts& token_;
  Board* board_ = nullptr;
  const Pin* pin_ = nullptr;
  CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
  OutsideKey outsideRsa_;
  std::map<std::tuple<CK_KEY_TYPE, CK_ULONG, Usage>, SecretKey> secrets_;
  std::map<std::tuple<CK_KEY_TYPE, CK_ULONG, Usage>, KeyPair> pairs_;
  std::map<CK_OBJECT_HANDLE, bool> wantLogin_;  // of keys that were on the token
};

}  // namespace kestrel::probe
