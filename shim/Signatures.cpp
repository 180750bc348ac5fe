#include "shim/Signatures.h"

#include <new>

#include "shim/CallersMemory.h"
#include "shim/Shim.h"
#include "shim/SigningMechanisms.h"

namespace {

// 0 for a digest that is not known.
CK_ULONG digestLength(CK_MECHANISM_TYPE digest) {
  switch (digest) {
    case CKM_SHA_1:
      return 20;
    case CKM_SHA256:
      return 32;
    case CKM_SHA384:
      return 48;
    case CKM_SHA512:
      return 64;
    default:
      return 0;
  }
}

bool takesPss(const CK_MECHANISM& mechanism) {
  const SigningMechanism* const row = findSigningMechanism(mechanism.mechanism);
  return row != nullptr && row->pss && mechanism.ulParameterLen == sizeof(CK_RSA_PKCS_PSS_PARAMS);
}

}  // namespace

SignatureBegun::SignatureBegun(const CK_MECHANISM& mechanism, CK_OBJECT_HANDLE key)
    : mechanism_{mechanism.mechanism, nullptr, mechanism.ulParameterLen}, key_(key) {
  if (takesPss(mechanism)) pss_ = valueAt<CK_RSA_PKCS_PSS_PARAMS>(mechanism.pParameter);
  isKnown_ = pss_ || mechanism.pParameter == nullptr || mechanism.ulParameterLen == 0;
}

CK_RV SignatureBegun::begin(CK_SESSION_HANDLE session) const {
  if (!isKnown_) return CKR_FUNCTION_FAILED;
  auto parameters = pss_.value_or(CK_RSA_PKCS_PSS_PARAMS{});
  CK_MECHANISM mechanism = mechanism_;
  if (pss_) mechanism.pParameter = &parameters;
  return ask(&CK_FUNCTION_LIST::C_SignInit, session, &mechanism, key_);
}

std::optional<SignatureBegun> SignatureBegun::salted() const {
  const CK_ULONG length = pss_ && pss_->sLen == ~CK_ULONG{0} ? digestLength(pss_->hashAlg) : 0;
  if (length == 0) return std::nullopt;
  SignatureBegun other = *this;
  other.pss_->sLen = length;
  return other;
}

void Signatures::remember(CK_SESSION_HANDLE session, const SignatureBegun& begun) {
  const std::lock_guard lock(mutex_);
  try {
    begun_.insert_or_assign(session, begun);
  } catch (const std::bad_alloc&) {  // then no waiver steps in
    begun_.erase(session);
  }
}

void Signatures::forget(CK_SESSION_HANDLE session) {
  const std::lock_guard lock(mutex_);
  begun_.erase(session);
}

void Signatures::forgetAll() {
  const std::lock_guard lock(mutex_);
  begun_.clear();
}

std::optional<SignatureBegun> Signatures::of(CK_SESSION_HANDLE session) {
  const std::lock_guard lock(mutex_);
  const auto found = begun_.find(session);
  return found == begun_.end() ? std::nullopt : std::optional(found->second);
}
