// The entries of the software token for sessions, logins and PINs.
#include <algorithm>
#include <string_view>
#include <utility>

#include "token/Call.h"

namespace kestrel::token {

namespace {

CK_RV checkPin(Slot& slot, const CK_UTF8CHAR* pin, CK_ULONG length) {
  if (slot.tries == 0) return CKR_PIN_LOCKED;
  if (slot.pin == std::string_view(reinterpret_cast<const char*>(pin), length)) {
    slot.tries = 3;
    return CKR_OK;
  }
  return --slot.tries == 0 ? CKR_PIN_LOCKED : CKR_PIN_INCORRECT;
}

CK_RV logIn(Slot& slot, const CK_UTF8CHAR* pin, CK_ULONG length) {
  if (slot.loggedIn) return CKR_USER_ALREADY_LOGGED_IN;
  const CK_RV result = checkPin(slot, pin, length);
  slot.loggedIn = result == CKR_OK;
  return result;
}

bool wantsContext(const Session::Operation& operation) {
  return operation.key != nullptr && operation.key->key.wantsContext;
}

// For an operation that has begun; or for the next one, when one was refused for want of it.
CK_RV logInForOperation(Session& session, const CK_UTF8CHAR* pin, CK_ULONG length) {
  if (!wantsContext(session.sign) && !wantsContext(session.decrypt) && !session.contextRefused) {
    return CKR_OPERATION_NOT_INITIALIZED;
  }
  const CK_RV result = checkPin(*session.slot, pin, length);
  session.contextLoggedIn = result == CKR_OK;
  if (result == CKR_PIN_LOCKED) logOut(*session.slot);
  return result;
}

}  // namespace

}  // namespace kestrel::token

using namespace kestrel::token;

CK_RV C_OpenSession(CK_SLOT_ID id, CK_FLAGS flags, void* application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE* handle) {
  const void* callback = reinterpret_cast<const void*>(notify);
  Call call("C_OpenSession", {id, flags, application, callback, at(handle)}, {handle});
  Slot* slot = call.token(id);
  if (slot == nullptr) return call.result;
  if (handle == nullptr) return CKR_ARGUMENTS_BAD;
  if ((flags & CKF_SERIAL_SESSION) == 0) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
  *handle = ++token().lastSession;
  Session& session = token().sessions[*handle];
  session.slot = slot;
  session.readWrite = (flags & CKF_RW_SESSION) != 0;
  return CKR_OK;
}

CK_RV C_CloseSession(CK_SESSION_HANDLE handle) {
  Call call("C_CloseSession", {handle});
  const Session* session = call.session(handle);
  if (session != nullptr) closeSessions(*session->slot, handle);
  return call.result;
}

CK_RV C_CloseAllSessions(CK_SLOT_ID id) {
  Call call("C_CloseAllSessions", {id});
  Slot* slot = call.token(id);
  if (slot != nullptr) closeSessions(*slot);
  return call.result;
}

CK_RV C_GetSessionInfo(CK_SESSION_HANDLE handle, CK_SESSION_INFO* info) {
  Call call("C_GetSessionInfo", {handle, info});
  const Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  constexpr CK_STATE states[2][2] = {{CKS_RO_PUBLIC_SESSION, CKS_RO_USER_FUNCTIONS},
                                     {CKS_RW_PUBLIC_SESSION, CKS_RW_USER_FUNCTIONS}};
  *info = {session->slot->id, states[session->readWrite][session->slot->loggedIn],
           CKF_SERIAL_SESSION | (session->readWrite ? CKF_RW_SESSION : 0), 0};
  return CKR_OK;
}

// There is no security officer: nothing that such a one could do.
CK_RV C_Login(CK_SESSION_HANDLE handle, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length) {
  Call call("C_Login", {handle, user, {pin, length}});
  Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (pin == nullptr) return CKR_ARGUMENTS_BAD;
  if (user == CKU_CONTEXT_SPECIFIC) return logInForOperation(*session, pin, length);
  return user == CKU_USER ? logIn(*session->slot, pin, length) : CKR_USER_TYPE_INVALID;
}

CK_RV C_Logout(CK_SESSION_HANDLE handle) {
  Call call("C_Logout", {handle});
  const Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (!session->slot->loggedIn) return CKR_USER_NOT_LOGGED_IN;
  logOut(*session->slot);
  return CKR_OK;
}

CK_RV C_SetPIN(CK_SESSION_HANDLE handle, CK_UTF8CHAR* oldPin, CK_ULONG oldLength,
               CK_UTF8CHAR* newPin, CK_ULONG newLength) {
  Call call("C_SetPIN", {handle, {oldPin, oldLength}, {newPin, newLength}});
  const Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (oldPin == nullptr || newPin == nullptr) return CKR_ARGUMENTS_BAD;
  if (!session->readWrite && !session->slot->settings.has("setpin")) return CKR_SESSION_READ_ONLY;
  if (newLength < minPinLength || newLength > maxPinLength) return CKR_PIN_LEN_RANGE;
  const CK_RV result = checkPin(*session->slot, oldPin, oldLength);
  if (result == CKR_OK) session->slot->pin.assign(newPin, newPin + newLength);
  return result;
}
