#include "probe/Expected.h"

#include <algorithm>

namespace kestrel::probe {

namespace {

// PKCS #11 lets any function end with these. They tell the caller nothing of what he did wrong.
constexpr CK_RV saysNothing[] = {CKR_GENERAL_ERROR, CKR_FUNCTION_FAILED, CKR_DEVICE_ERROR};

}  // namespace

Verdict judge(CK_RV value, const Expected& expected) {
  if (value == expected.preferred()) return Verdict::ok;
  if (expected.holds(value)) return Verdict::vague;
  if (value == CKR_FUNCTION_NOT_SUPPORTED) return Verdict::absent;
  const bool failureWasDue = !expected.holds(CKR_OK);
  if (failureWasDue && std::ranges::count(saysNothing, value) != 0) return Verdict::vague;
  return Verdict::deviates;
}

}  // namespace kestrel::probe
