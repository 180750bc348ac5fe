// The signatures under way, for the waivers that begin one again: one for each session, from its
// C_SignInit until the operation ends or the session closes.
#pragma once

#include <map>
#include <mutex>
#include <optional>

#include "harness/Pkcs11.h"

// A C_SignInit.
class SignatureBegun {
 public:
  SignatureBegun(const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key);

  // Begins it (again). Only where the parameter is known: others may hold addresses.
  CK_RV begin(CK_SESSION_HANDLE session) const;

  // The same with a salt as long as the digest, where the salt's length was left open and the
  // digest's is known.
  std::optional<SignatureBegun> salted() const;

 private:
  CK_MECHANISM mechanism_;  // without its parameter
  CK_OBJECT_HANDLE key_;
  std::optional<CK_RSA_PKCS_PSS_PARAMS> pss_;
  bool isKnown_;
};

// Any thread may call it.
class Signatures {
 public:
  void remember(CK_SESSION_HANDLE session, const SignatureBegun& begun);
  void forget(CK_SESSION_HANDLE session);
  void forgetAll();
  std::optional<SignatureBegun> of(CK_SESSION_HANDLE session);

 private:
  std::mutex mutex_;
  std::map<CK_SESSION_HANDLE, SignatureBegun> begun_;
};
