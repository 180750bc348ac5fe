// printOpensslVersion: the libcrypto that checks the token's work, by number and release series.
#include <openssl/crypto.h>

#include "harness/Output.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

// A version number of libcrypto (0xMNN00PP0 and its forerunners) as its release series.
const char* releaseSeries(std::uint64_t version) {
  if (version < 0x10100000) return "OpenSSL version is Older than 1.1.0";
  if (version < 0x10101000) return "OpenSSL version is 1.1.0 series";
  if (version > 0x2fffffff) return "OpenSSL version is 3.0.x or newer";
  return "OpenSSL version is 1.1.1 series";
}

}  // namespace

void TestManager::printOpensslVersion() {
  const std::uint64_t version = OpenSSL_version_num();
  // The stream stays hexadecimal: printInfo counts its slots in that base.
  report << "OpenSSL version: " << std::hex << version << std::endl;
  report << releaseSeries(version) << std::endl;
}

}  // namespace kestrel
