// The mechanisms whose signatures kestrel verifies, by what the shim has to know about them.
#pragma once

#include <algorithm>

#include "harness/SignatureMechanisms.h"

struct SigningMechanism {
  CK_MECHANISM_TYPE type = 0;
  bool inParts = false;  // signs in parts: it hashes the data itself
  bool pss = false;
};

// kestrel's own table without CKM_RSA_X_509, whose conforming result kestrel rejects.
inline constexpr auto signingMechanisms = [] {
  std::array<SigningMechanism, signatureMechanisms.size() - 1> rows;
  auto* row = rows.begin();
  for (const SignatureMechanism& known : signatureMechanisms) {
    if (known.type == CKM_RSA_X_509) continue;
    const bool hashes =
        known.padding != Padding::unchecked && known.tokenData == TokenData::message;
    *row++ = {known.type, hashes, known.padding == Padding::pss};
  }
  return rows;
}();

// The row of a mechanism, null for another.
constexpr const SigningMechanism* findSigningMechanism(CK_MECHANISM_TYPE type) {
  const auto* row = std::ranges::find(signingMechanisms, type, &SigningMechanism::type);
  return row == signingMechanisms.end() ? nullptr : row;
}
