// One working operation of each kind, with whatever the token has for it: what is done wrong around
// it in one place and asked of its lengths in another begins with it.
#pragma once

#include <array>

#include "probe/Bench.h"
#include "probe/Keys.h"

namespace kestrel::probe {

enum class Kind { digest, sign, verify, encrypt, decrypt, signRecover, verifyRecover };

// The functions of a kind; FunctionId::count where there is none.
struct KindRow {
  Kind kind;
  const char* name;
  CK_FLAGS flag;  // of a mechanism that does it
  FunctionId init, single, update, final;
};

inline constexpr std::array kindRows{
    KindRow{Kind::digest, "digest", CKF_DIGEST, FunctionId::C_DigestInit, FunctionId::C_Digest,
            FunctionId::C_DigestUpdate, FunctionId::C_DigestFinal},
    KindRow{Kind::sign, "sign", CKF_SIGN, FunctionId::C_SignInit, FunctionId::C_Sign,
            FunctionId::C_SignUpdate, FunctionId::C_SignFinal},
    KindRow{Kind::verify, "verify", CKF_VERIFY, FunctionId::C_VerifyInit, FunctionId::C_Verify,
            FunctionId::C_VerifyUpdate, FunctionId::C_VerifyFinal},
    KindRow{Kind::encrypt, "encrypt", CKF_ENCRYPT, FunctionId::C_EncryptInit, FunctionId::C_Encrypt,
            FunctionId::C_EncryptUpdate, FunctionId::C_EncryptFinal},
    KindRow{Kind::decrypt, "decrypt", CKF_DECRYPT, FunctionId::C_DecryptInit, FunctionId::C_Decrypt,
            FunctionId::C_DecryptUpdate, FunctionId::C_DecryptFinal},
    KindRow{Kind::signRecover, "sign-recover", CKF_SIGN_RECOVER, FunctionId::C_SignRecoverInit,
            FunctionId::C_SignRecover, FunctionId::count, FunctionId::count},
    KindRow{Kind::verifyRecover, "verify-recover", CKF_VERIFY_RECOVER,
            FunctionId::C_VerifyRecoverInit, FunctionId::C_VerifyRecover, FunctionId::count,
            FunctionId::count},
};

constexpr const KindRow& rowOf(Kind kind) {
  return kindRows[static_cast<std::size_t>(kind)];
}

class Kit {
 public:
  Kind kind = Kind::digest;
  CK_MECHANISM* mechanism = nullptr;
  CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
  Bytes input;  // of the whole operation
  Bytes given;  // for a verification: the signature
  bool inParts = false;
  bool alwaysSame = true;  // the same input gives the same result

  const KindRow& row() const { return rowOf(kind); }

  // The calls. What they are given is in guarded memory; `output` and `length` are the module's,
  // and no matter to a verification.
  CK_RV begin(CK_SESSION_HANDLE session) const;
  CK_RV single(CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) const;
  CK_RV update(CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) const {
    return updateWith(session, input, output, length);
  }
  CK_RV updateWith(CK_SESSION_HANDLE session, View part, CK_BYTE* output, CK_ULONG* length) const;
  CK_RV finish(CK_SESSION_HANDLE session, CK_BYTE* output, CK_ULONG* length) const;

  // The whole operation in one call: the positive control. What came of it.
  Bytes run(Bench& bench, CK_SESSION_HANDLE session) const;

  Memory* memory = nullptr;
};

// The bytes of a parameter, of numbers and pointers, while it lives.
template <typename Parameter>
View viewOf(const Parameter& parameter) {
  return {reinterpret_cast<const char*>(&parameter), sizeof parameter};
}

// A mechanism as a module may read it. Without bytes its parameter is null.
CK_MECHANISM* mechanismOf(Bench& bench, CK_MECHANISM_TYPE type, View parameter = {});

// An operation of this kind with a mechanism and a key.
Kit operation(Bench& bench, Kind kind, CK_MECHANISM_TYPE type, View parameter,
              CK_OBJECT_HANDLE key = CK_INVALID_HANDLE);

// An operation that works on this token; the check is not applicable where there is none.
Kit kitFor(Bench& bench, Kind kind);
Kit kitInParts(Bench& bench, Kind kind);

}  // namespace kestrel::probe
