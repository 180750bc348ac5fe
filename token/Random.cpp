// The entries of the software token for random numbers.
#include <openssl/rand.h>

#include <algorithm>
#include <limits>

#include "token/Call.h"

namespace kestrel::token {

namespace {

// libcrypto counts in int.
template <typename Byte, typename Function>
bool inPieces(Byte* bytes, CK_ULONG length, Function function) {
  while (length > 0) {
    const auto piece = std::min<CK_ULONG>(length, std::numeric_limits<int>::max());
    if (!function(bytes, static_cast<int>(piece))) return false;
    bytes += piece;
    length -= piece;
  }
  return true;
}

}  // namespace

}  // namespace kestrel::token

using namespace kestrel::token;

CK_RV C_SeedRandom(CK_SESSION_HANDLE handle, CK_BYTE* seed, CK_ULONG length) {
  Call call("C_SeedRandom", {handle, length});
  if (call.session(handle) == nullptr) return call.result;
  if (seed == nullptr && length > 0) return CKR_ARGUMENTS_BAD;
  inPieces(seed, length, [](const CK_BYTE* bytes, int count) {
    RAND_add(bytes, count, 0);  // of which no entropy is expected
    return true;
  });
  return CKR_OK;
}

CK_RV C_GenerateRandom(CK_SESSION_HANDLE handle, CK_BYTE* bytes, CK_ULONG length) {
  Call call("C_GenerateRandom", {handle, length});
  if (call.session(handle) == nullptr) return call.result;
  if (bytes == nullptr && length > 0) return CKR_ARGUMENTS_BAD;
  const auto fill = [](CK_BYTE* to, int count) { return RAND_bytes(to, count) == 1; };
  return inPieces(bytes, length, fill) ? CKR_OK : CKR_DEVICE_ERROR;
}
