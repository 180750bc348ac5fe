// The entries of the software token for the module, its slots, sessions and PINs, and the list of
// all entries.
#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <thread>
#include <utility>

#include "token/Call.h"

namespace {

// What a token lists by default: every signature mechanism but the raw one, and OAEP.
constexpr char allMechanisms[] = "1,6,0x40,0x41,0x42,9,0xd,0xe,0x43,0x44,0x45";

template <std::size_t width>
void pad(CK_UTF8CHAR (&field)[width], const std::string& text) {
  std::memset(field, ' ', width);
  std::memcpy(field, text.data(), std::min(width, text.size()));
}

bool hasToken(const Slot& slot) {
  return !slot.settings.has("empty");
}

void closeSessions(Slot& slot, CK_SESSION_HANDLE only = 0) {
  std::erase_if(token().sessions, [&](const auto& entry) {
    return entry.second.slot == &slot && (only == 0 || only == entry.first);
  });
  const auto onSlot = [&](const auto& entry) { return entry.second.slot == &slot; };
  if (std::ranges::none_of(token().sessions, onSlot)) slot.loggedIn = false;
}

CK_RV checkPin(Slot& slot, const CK_UTF8CHAR* pin, CK_ULONG length) {
  if (pin == nullptr) return CKR_ARGUMENTS_BAD;
  if (slot.tries == 0) return CKR_PIN_LOCKED;
  if (slot.pin == std::string_view(reinterpret_cast<const char*>(pin), length)) {
    slot.tries = 3;
    return CKR_OK;
  }
  return --slot.tries == 0 ? CKR_PIN_LOCKED : CKR_PIN_INCORRECT;
}

CK_FLAGS pinFlags(const Slot& slot) {
  return (slot.tries < 3 ? CKF_USER_PIN_COUNT_LOW : 0) |
         (slot.tries < 2 ? CKF_USER_PIN_FINAL_TRY : 0) | (slot.tries < 1 ? CKF_USER_PIN_LOCKED : 0);
}

// Whether an event is due now; then it is taken.
std::optional<CK_SLOT_ID> takeEvent() {
  static auto last = std::chrono::steady_clock::now();
  const std::lock_guard lock(token().mutex);
  Config& config = token().config;
  const std::string file = config.settings.text("eventfile", "");
  if (!file.empty() && std::remove(file.c_str()) == 0) return 1;
  if (config.events.empty() || std::chrono::steady_clock::now() < last + config.events[0].second) {
    return std::nullopt;
  }
  last = std::chrono::steady_clock::now();
  const CK_SLOT_ID slot = config.events[0].first;
  config.events.erase(config.events.begin());
  return slot;
}

CK_RV unsupported() {
  return CKR_FUNCTION_NOT_SUPPORTED;
}

}  // namespace

CK_RV C_Initialize(void* arguments) {
  Call call("C_Initialize", {arguments}, {}, true);
  if (call.answered()) return call.result;
  return std::exchange(token().initialized, true) ? CKR_CRYPTOKI_ALREADY_INITIALIZED : CKR_OK;
}

CK_RV C_Finalize(void* reserved) {
  Call call("C_Finalize", {reserved});
  if (call.answered()) return call.result;
  token().initialized = false;
  for (Slot& slot : token().config.slots) closeSessions(slot);
  return CKR_OK;
}

CK_RV C_GetInfo(CK_INFO* info) {
  Call call("C_GetInfo", {info});
  if (call.answered()) return call.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  const Settings& settings = token().config.settings;
  const std::string version = settings.text("version", "1.5");
  const auto part = [](const std::string& text) { return static_cast<CK_BYTE>(std::stoul(text)); };
  *info = {{2, 40}, {}, 0, {}, {part(version), part(version.substr(version.find('.') + 1))}};
  pad(info->manufacturerID, "kestrel");
  pad(info->libraryDescription, settings.text("library", "kestrel software token"));
  call.scramble(info, sizeof *info);
  return CKR_OK;
}

CK_RV C_GetSlotList(CK_BBOOL present, CK_SLOT_ID* list, CK_ULONG* count) {
  Call call("C_GetSlotList", {CK_ULONG{present}, at(list), count}, {count});
  if (call.answered()) return call.result;
  std::vector<CK_SLOT_ID> ids;
  for (const Slot& slot : token().config.slots) {
    if (hasToken(slot) || present == CK_FALSE) ids.push_back(slot.id);
  }
  return deliver(ids.data(), ids.size(), list, count);
}

CK_RV C_GetSlotInfo(CK_SLOT_ID id, CK_SLOT_INFO* info) {
  Call call("C_GetSlotInfo", {id, info});
  if (call.answered()) return call.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  const Slot* slot = call.slot(id);
  if (slot == nullptr) return call.result;
  pad(info->slotDescription, slot->settings.text("description", "kestrel software reader"));
  pad(info->manufacturerID, slot->settings.text("manufacturer", "kestrel"));
  info->flags = slot->settings.number("flags", CKF_REMOVABLE_DEVICE | CKF_HW_SLOT) |
                (hasToken(*slot) ? CKF_TOKEN_PRESENT : 0);
  info->hardwareVersion = info->firmwareVersion = {1, 0};
  call.scramble(info, sizeof *info);
  return CKR_OK;
}

CK_RV C_GetTokenInfo(CK_SLOT_ID id, CK_TOKEN_INFO* info) {
  Call call("C_GetTokenInfo", {id, info});
  const Slot* slot = call.token(id);
  if (slot == nullptr) return call.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  *info = {};
  pad(info->label, slot->settings.text("label", "kestrel token"));
  pad(info->manufacturerID, slot->settings.text("maker", "kestrel"));
  pad(info->model, slot->settings.text("model", "software"));
  info->flags = CKF_RNG | CKF_LOGIN_REQUIRED | CKF_USER_PIN_INITIALIZED | CKF_TOKEN_INITIALIZED |
                pinFlags(*slot);
  call.scramble(info, sizeof *info);
  return CKR_OK;
}

CK_RV C_GetMechanismList(CK_SLOT_ID id, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  Call call("C_GetMechanismList", {id, at(list), count}, {count});
  const Slot* slot = call.token(id);
  if (slot == nullptr) return call.result;
  std::vector<CK_ULONG> types;
  std::istringstream text(slot->settings.text("mechanisms", allMechanisms));
  for (std::string type; std::getline(text, type, ',');)
    types.push_back(std::stoul(type, nullptr, 0));
  return deliver(types.data(), types.size(), list, count);
}

CK_RV C_GetMechanismInfo(CK_SLOT_ID id, CK_MECHANISM_TYPE type, CK_MECHANISM_INFO* info) {
  Call call("C_GetMechanismInfo", {id, type, info}, {info == nullptr ? nullptr : &info->flags});
  if (call.token(id) == nullptr) return call.result;
  if (info == nullptr) return CKR_ARGUMENTS_BAD;
  *info = {2048, 4096, CKF_SIGN | CKF_DECRYPT};
  return CKR_OK;
}

CK_RV C_SetPIN(CK_SESSION_HANDLE handle, CK_UTF8CHAR* oldPin, CK_ULONG oldLength,
               CK_UTF8CHAR* newPin, CK_ULONG newLength) {
  Call call("C_SetPIN", {handle, {oldPin, oldLength}, {newPin, newLength}});
  const Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (newPin == nullptr) return CKR_ARGUMENTS_BAD;
  if (!session->readWrite && !session->slot->settings.has("setpin")) return CKR_SESSION_READ_ONLY;
  const CK_RV result = checkPin(*session->slot, oldPin, oldLength);
  if (result == CKR_OK) session->slot->pin.assign(newPin, newPin + newLength);
  return result;
}

CK_RV C_OpenSession(CK_SLOT_ID id, CK_FLAGS flags, void* application, CK_NOTIFY notify,
                    CK_SESSION_HANDLE* handle) {
  const void* callback = reinterpret_cast<const void*>(notify);
  Call call("C_OpenSession", {id, flags, application, callback, at(handle)}, {handle});
  Slot* slot = call.token(id);
  if (slot == nullptr) return call.result;
  if (handle == nullptr) return CKR_ARGUMENTS_BAD;
  if ((flags & CKF_SERIAL_SESSION) == 0) return CKR_SESSION_PARALLEL_NOT_SUPPORTED;
  *handle = ++token().lastSession;
  token().sessions[*handle] = {slot, (flags & CKF_RW_SESSION) != 0, false, {}, {}, {}};
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
  *info = {session->slot->id,
           session->slot->loggedIn ? CKS_RO_USER_FUNCTIONS : CKS_RO_PUBLIC_SESSION,
           CKF_SERIAL_SESSION, 0};
  return CKR_OK;
}

CK_RV C_Login(CK_SESSION_HANDLE handle, CK_USER_TYPE user, CK_UTF8CHAR* pin, CK_ULONG length) {
  Call call("C_Login", {handle, user, {pin, length}});
  const Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  if (pin == nullptr) return CKR_ARGUMENTS_BAD;
  if (user != CKU_USER && user != CKU_CONTEXT_SPECIFIC) return CKR_USER_TYPE_INVALID;
  Slot& slot = *session->slot;
  bool& loggedIn = user == CKU_USER ? slot.loggedIn : slot.contextLoggedIn;
  if (user == CKU_USER && loggedIn) return CKR_USER_ALREADY_LOGGED_IN;
  const CK_RV result = checkPin(slot, pin, length);
  loggedIn = result == CKR_OK;
  return result;
}

CK_RV C_Logout(CK_SESSION_HANDLE handle) {
  Call call("C_Logout", {handle});
  const Session* session = call.session(handle);
  if (session == nullptr) return call.result;
  return std::exchange(session->slot->loggedIn, false) ? CKR_OK : CKR_USER_NOT_LOGGED_IN;
}

CK_RV C_CancelFunction(CK_SESSION_HANDLE handle) {
  Call call("C_CancelFunction", {handle}, {}, true);
  return call.answered() ? call.result : CKR_FUNCTION_NOT_SUPPORTED;
}

// Waits outside the lock: other threads go on calling.
CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID* slot, void* reserved) {
  {
    Call call("C_WaitForSlotEvent", {flags, slot, reserved});  // slot: what it held before
    if (call.answered()) return call.result;
  }
  for (;;) {
    if (const auto event = takeEvent()) {
      *slot = *event;
      return CKR_OK;
    }
    if ((flags & CKF_DONT_BLOCK) != 0) return CKR_NO_EVENT;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// clang-format off
#define ENTRIES(X) \
  X(C_Initialize) X(C_Finalize) X(C_GetInfo) X(C_GetFunctionList) X(C_GetSlotList) X(C_GetSlotInfo) \
  X(C_GetTokenInfo) X(C_GetMechanismList) X(C_GetMechanismInfo) X(C_SetPIN) X(C_OpenSession) \
  X(C_CloseSession) X(C_CloseAllSessions) X(C_GetSessionInfo) X(C_Login) X(C_Logout) \
  X(C_GetAttributeValue) X(C_FindObjectsInit) X(C_FindObjects) X(C_FindObjectsFinal) \
  X(C_DecryptInit) X(C_Decrypt) X(C_DecryptUpdate) X(C_DecryptFinal) X(C_SignInit) X(C_Sign) \
  X(C_SignUpdate) X(C_SignFinal) X(C_SeedRandom) X(C_GenerateRandom) X(C_CancelFunction) \
  X(C_WaitForSlotEvent)
// clang-format on

__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  static CK_FUNCTION_LIST functions{};
  Call call("C_GetFunctionList", {}, {}, true);
  if (call.answered()) return call.result;
  // Every entry is there; those that kestrel never calls answer CKR_FUNCTION_NOT_SUPPORTED.
  CK_RV (*const stub)() = unsupported;
  functions.version = {2, 40};
  for (std::size_t offset = offsetof(CK_FUNCTION_LIST, C_Initialize); offset < sizeof functions;
       offset += sizeof stub) {
    std::memcpy(reinterpret_cast<char*>(&functions) + offset, &stub, sizeof stub);
  }
  const std::string missing = token().config.settings.text("null", "");
#define FILL(entry) \
  functions.entry = missing == #entry || (chance() && chance()) ? nullptr : (entry);
  ENTRIES(FILL)
#undef FILL
  *list = token().config.settings.has("nolist") ? nullptr : &functions;
  if (token().config.settings.has("badlist")) {
    void* const unreadable =
        mmap(nullptr, sizeof **list, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *list = static_cast<CK_FUNCTION_LIST*>(unreadable);
  }
  return CKR_OK;
}
