// The signature mechanisms: what the signing tests hand to the token for each, and how the
// signature is then checked. Has no code behind it, so that every program can include it.
#pragma once

#include <algorithm>
#include <array>

#include "harness/Pkcs11.h"

struct Digest {
  CK_MECHANISM_TYPE type;
  CK_RSA_PKCS_MGF_TYPE maskGeneration;
};

inline constexpr Digest sha1{CKM_SHA_1, CKG_MGF1_SHA1};
inline constexpr Digest sha256{CKM_SHA256, CKG_MGF1_SHA256};
inline constexpr Digest sha384{CKM_SHA384, CKG_MGF1_SHA384};
inline constexpr Digest sha512{CKM_SHA512, CKG_MGF1_SHA512};

enum class Padding {
  unchecked,  // the signature is not looked at
  pkcs1,      // PKCS#1 v1.5; no mechanism parameter
  pss,        // salt as long as the digest; the token gets CK_RSA_PKCS_PSS_PARAMS
};

enum class TokenData {
  message,     // as it is
  hash,        // its SHA-256
  digestInfo,  // its SHA-256 in a DigestInfo, without padding
};

struct SignatureMechanism {
  CK_MECHANISM_TYPE type;
  const char* name;
  const char* announcement;  // printed before the check; null for "Performing NAME ..."
  Padding padding;
  const Digest* digest;  // of the check, and of the PSS parameters; null when unchecked
  TokenData tokenData;
};

// The message itself is always what is checked. For CKM_RSA_X_509 this passes only with a token
// that pads the bare DigestInfo it was given.
inline constexpr auto signatureMechanisms = std::to_array<SignatureMechanism>({
    // clang-format off
    {CKM_RSA_PKCS, "CKM_RSA_PKCS", "Signature mechanism is RSA_PKCS\n",
     Padding::unchecked, nullptr, TokenData::message},
    {CKM_RSA_X_509, "CKM_RSA_X_509", "Signature mechanism is CKM_RSA_X_509\n",
     Padding::pkcs1, &sha256, TokenData::digestInfo},
    {CKM_SHA1_RSA_PKCS, "CKM_SHA1_RSA_PKCS", nullptr, Padding::pkcs1, &sha1, TokenData::message},
    {CKM_RSA_PKCS_PSS, "CKM_RSA_PKCS_PSS", nullptr, Padding::pss, &sha256, TokenData::hash},
    {CKM_SHA1_RSA_PKCS_PSS, "CKM_SHA1_RSA_PKCS_PSS", nullptr, Padding::pss, &sha1, TokenData::message},
    {CKM_SHA256_RSA_PKCS, "CKM_SHA256_RSA_PKCS", nullptr, Padding::pkcs1, &sha256, TokenData::message},
    {CKM_SHA384_RSA_PKCS, "CKM_SHA384_RSA_PKCS", nullptr, Padding::pkcs1, &sha384, TokenData::message},
    {CKM_SHA512_RSA_PKCS, "CKM_SHA512_RSA_PKCS", nullptr, Padding::pkcs1, &sha512, TokenData::message},
    {CKM_SHA256_RSA_PKCS_PSS, "CKM_SHA256_RSA_PKCS_PSS", nullptr, Padding::pss, &sha256, TokenData::message},
    {CKM_SHA384_RSA_PKCS_PSS, "CKM_SHA384_RSA_PKCS_PSS", nullptr, Padding::pss, &sha384, TokenData::message},
    {CKM_SHA512_RSA_PKCS_PSS, "CKM_SHA512_RSA_PKCS_PSS", nullptr, Padding::pss, &sha512, TokenData::message},
    // clang-format on
});

// The row of a mechanism, null for one that is signed with but not known here.
constexpr const SignatureMechanism* findSignatureMechanism(CK_MECHANISM_TYPE type) {
  const auto* row = std::ranges::find(signatureMechanisms, type, &SignatureMechanism::type);
  return row == signatureMechanisms.end() ? nullptr : row;
}
