// login: logs in to every token as its user, shows its label, and logs out again.

#include "harness/Report.h"
#include "harness/Slots.h"
#include "harness/TestManager.h"
#include "harness/Text.h"

CK_RV TestManager::login() {
  report << "Test4 - If token is present ... then test login\n";
  populateSlotList();
  for (const TokenSlot token : PresentTokens(slots())) {
    const CK_SESSION_HANDLE session = openSession(token.id);
    loginUser(session, token.position);
    CK_TOKEN_INFO info{};
    require(p11::C_GetTokenInfo, token.id, &info);
    report << "token label: " << fullText(info.label) << "\n";
    logoutAndClose(session);
  }
  return CKR_OK;
}
