// changePinTest: gives every token a temporary user PIN and its own back, logging in with each.
// The operator sees a line per step; the first failure ends the test, not the process, and a
// warning names the temporary PIN where the token may still have it.
#include <string_view>

#include "harness/Report.h"
#include "harness/Slots.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

constexpr std::string_view temporaryPinText = "24682468";

struct PinChange {
  CK_SESSION_HANDLE session;
  Pin operatorPin;
  Pin temporaryPin{temporaryPinText};
};

// The module gets copies: what it writes over a PIN must not end up as the PIN of the card.
CK_RV changePin(CK_SESSION_HANDLE session, Pin from, Pin to) {
  return p11::C_SetPIN(session, from.data(), from.length(), to.data(), to.length());
}

CK_RV logInWith(CK_SESSION_HANDLE session, Pin pin) {
  return p11::C_Login(session, CKU_USER, pin.data(), pin.length());
}

CK_RV logOut(PinChange& change) {
  return p11::C_Logout(change.session);
}

struct PinStep {
  CK_RV (*call)(PinChange&);
  const char* confirmation;
  bool mayKeepTemporaryPin;  // when this step fails
};

constexpr PinStep pinSteps[] = {
    {[](PinChange& c) { return changePin(c.session, c.operatorPin, c.temporaryPin); },
     "C_SetPIN() passed: changed pin", false},
    {[](PinChange& c) { return logInWith(c.session, c.temporaryPin); },
     "C_Login() passed: logged in with new pin", false},
    {logOut, "C_Logout() passed", false},
    {[](PinChange& c) { return changePin(c.session, c.temporaryPin, c.operatorPin); },
     "C_SetPIN() passed: changed pin back to original", true},
    {[](PinChange& c) { return logInWith(c.session, c.operatorPin); },
     "C_Login() passed: logged in with original pin", true},
    {logOut, "C_Logout() passed: (2nd logout)", false},
};

CK_RV failPinChange(const PinStep& step, CK_SESSION_HANDLE session, CK_RV returnValue) {
  if (step.mayKeepTemporaryPin) {
    report << "Because this test failed you may need to use pin " << temporaryPinText
           << " to login to the token: \n";
  }
  return printReturnAndClose(session, "PIN change failed", returnValue);
}

// Closes the session in any case. Returns what the first failing step returned.
CK_RV changePinAndBack(PinChange change) {
  for (const PinStep& step : pinSteps) {
    const CK_RV result = step.call(change);
    if (result != CKR_OK) return failPinChange(step, change.session, result);
    report << step.confirmation << "\n";
  }
  p11::C_CloseSession(change.session);
  return CKR_OK;
}

}  // namespace

CK_RV TestManager::changePinTest() {
  populateSlotList();
  for (const TokenSlot token : PresentTokens(slots())) {
    getPin(token.position);
    // A read-only session without a login: what a module makes of C_SetPIN there is the test.
    const CK_SESSION_HANDLE session = openSession(token.id);
    const CK_RV result = changePinAndBack({session, storedPin(token.position)});
    if (result != CKR_OK) return result;
  }
  return CKR_OK;
}

}  // namespace kestrel
