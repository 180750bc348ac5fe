// signUpdate: as signData, in three parts through C_SignUpdate and C_SignFinal.
// The operator sees the same report with the calls of multi-part signing.
#include <algorithm>

#include "harness/Report.h"
#include "tests/Signing.h"

namespace kestrel {

namespace {

void updateInThreeParts(Signing& signing) {
  const CK_ULONG size = (signing.dataLength + 2) / 3;
  for (CK_ULONG start = 0; start < 3 * size; start += size) {
    require(p11::C_SignUpdate, signing.session, signing.data.data() + start,
            std::min(size, signing.dataLength - start));
  }
}

constexpr SigningWay multiPart{
    .outputName = "C_SignFinal",
    .loginNotice = "",
    .begin =
        [](Signing& signing) {
          signing.init();
          dumpMessage();
        },
    .feed = updateInThreeParts,
    .output =
        [](Signing& signing, CK_BYTE* signature) {
          return p11::C_SignFinal(signing.session, signature, &signing.signatureLength);
        },
};

}  // namespace

CK_RV TestManager::signUpdate() {
  report << "Test12 - C_SignUpdate, C_SignFinal\n";
  signOnTokens(*this, &TestManager::signByUpdate, "signByUpdate");
  return CKR_OK;
}

CK_RV TestManager::signByUpdate(CK_SESSION_HANDLE session, const CK_MECHANISM_TYPE* mechanisms,
                                CK_ULONG mechanismCount, std::uint32_t slotIndex) {
  signEach(*this, multiPart, session, {mechanisms, mechanismCount}, slotIndex);
  return CKR_OK;
}

}  // namespace kestrel
