// decryptUpdate: as decryptData, through C_DecryptUpdate and C_DecryptFinal with CKM_RSA_PKCS.
// The operator sees what the final call gave: a token that gave all before shows an empty dump.
#include <array>

#include "harness/Bytes.h"
#include "harness/Report.h"
#include "tests/Decryption.h"
#include "tests/UserSession.h"

namespace kestrel {

namespace {

constexpr std::array mechanisms{rsaPkcs};

// The last part goes to the start of the plaintext, into as many bytes as the update gave: a module
// that holds all back until now is told of no room, and writes nevertheless.
void showLastPart(CK_SESSION_HANDLE session, Plaintext& plaintext) {
  const CK_RV result = p11::C_DecryptFinal(session, plaintext.storage.data(), &plaintext.length);
  requireResult("C_DecryptFinal", ifSane(result, plaintext.length <= plaintext.storage.size()));
  report << "\nDecrypted data: \n";
  hexDump(plaintext.storage.data(), static_cast<std::uint32_t>(plaintext.length));
}

constexpr DecryptionWay multiPart{mechanisms, p11::C_DecryptUpdate, showLastPart};

}  // namespace

CK_RV TestManager::decryptUpdate() {
  report << "Test11 - C_DecryptUpdate, C_DecryptFinal\n";
  populateSlotList();
  for (const TokenSlot token : PresentTokens(slots())) {
    asUser(*this, token, [&](CK_SESSION_HANDLE session) {
      decryptByUpdate(session, token.position);
      return CKR_OK;
    });
  }
  return CKR_OK;
}

CK_RV TestManager::decryptByUpdate(CK_SESSION_HANDLE session, CK_ULONG slotPosition) {
  return decryptEach(*this, multiPart, session, static_cast<std::uint32_t>(slotPosition));
}

}  // namespace kestrel
