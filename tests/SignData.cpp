// signData: signs a message with every mechanism of every token through C_Sign and verifies it.
// The operator sees per mechanism the message, the calls, the signature and the verdict.

#include "harness/Report.h"
#include "tests/Signing.h"

namespace kestrel {

namespace {

constexpr SigningWay singlePart{
    .outputName = "C_Sign",
    .loginNotice = "CKR_USER_NOT_LOGGED_IN logging in with CKU_CONTEXT_SPECIFIC\n",
    .begin =
        [](Signing& signing) {
          dumpMessage();
          signing.init();
        },
    .feed = [](Signing&) {},
    // The length query carries no data: a module must not need it to know the length.
    .output =
        [](Signing& signing, CK_BYTE* signature) {
          const bool query = signature == nullptr;
          return p11::C_Sign(signing.session, query ? nullptr : signing.data.data(),
                             query ? 0 : signing.dataLength, signature, &signing.signatureLength);
        },
};

}  // namespace

CK_RV TestManager::signData() {
  report << "Test5 - login to token and sign data...\n";
  signOnTokens(*this, &TestManager::signWithKeys, nullptr);
  return CKR_OK;
}

CK_RV TestManager::signWithKeys(CK_SESSION_HANDLE session, const CK_MECHANISM_TYPE* mechanisms,
                                CK_ULONG mechanismCount, std::uint32_t slotIndex) {
  signEach(*this, singlePart, session, {mechanisms, mechanismCount}, slotIndex);
  return CKR_OK;
}

}  // namespace kestrel
