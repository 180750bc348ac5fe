// The frame of most tests: a session with a token, on which the user is logged in.
#pragma once

#include "harness/Slots.h"
#include "harness/TestManager.h"

namespace kestrel {

// Opens a session with the token (`unset` as in openSession()), logs in, does `body(session)`, logs
// out and closes the session. What `body` returns is returned; unless that is CKR_OK the session is
// left as it is.
template <typename Body>
CK_RV asUser(TestManager& manager, const TokenSlot& token, Body body, CK_SESSION_HANDLE unset = 0) {
  const CK_SESSION_HANDLE session = openSession(token.id, unset);
  manager.loginUser(session, token.position);
  const CK_RV result = body(session);
  if (result == CKR_OK) logoutAndClose(session);
  return result;
}

}  // namespace kestrel
