// What every mechanism is put to: a whole operation, in one call or in odd pieces, whose result is
// held against OpenSSL's.
#pragma once

#include "probe/Kits.h"

namespace kestrel::probe {

// Data of every length that is asked for, always the same.
Bytes message(std::size_t length);

// The result for `data`. The check ends where the token refuses.
Bytes inOne(Bench& bench, Kit kit, View data);
Bytes inPieces(Bench& bench, const Kit& kit, View data);

// What the token says of a signature: the value of C_Verify or C_VerifyFinal.
CK_RV confirm(Bench& bench, Kit kit, View data, View signature, bool inParts = false);

// The same bytes but for one bit of one of them.
Bytes changed(View bytes, std::size_t at);

// The checks of one mechanism.
class Checks {
 public:
  Checks(Plan& plan, CK_MECHANISM_TYPE type);

  // "mechanisms/CKM_SHA256/digest/parts" for "digest/parts".
  void add(CK_FLAGS flag, std::string_view name, const char* clause,
           std::function<void(Bench&)> run);

 private:
  Plan& plan_;
  CK_MECHANISM_TYPE type_;
};

void addDigests(Plan& plan);
void addMacs(Plan& plan);
void addCiphers(Plan& plan);
void addRsaSignatures(Plan& plan);
void addRsaEncryption(Plan& plan);
void addCurveSignatures(Plan& plan);
void addGeneration(Plan& plan);
void addAgreements(Plan& plan);
void addDerivations(Plan& plan);
void addWrapping(Plan& plan);

}  // namespace kestrel::probe
