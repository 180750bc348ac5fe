// login: logs in to every token as its user, shows its label, and logs out again.

#include "harness/Report.h"
#include "harness/Text.h"
#include "tests/UserSession.h"

namespace kestrel {

CK_RV TestManager::login() {
  report << "Test4 - If token is present ... then test login\n";
  populateSlotList();
  for (const TokenSlot token : PresentTokens(slots())) {
    asUser(*this, token, [&](CK_SESSION_HANDLE) {
      CK_TOKEN_INFO info{};
      require(p11::C_GetTokenInfo, token.id, &info);
      report << "token label: " << fullText(info.label) << "\n";
      return CKR_OK;
    });
  }
  return CKR_OK;
}

}  // namespace kestrel
