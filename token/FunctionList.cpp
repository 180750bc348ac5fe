// The entries of the software token for the module itself, and the list of all entries.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <utility>

#include "token/Call.h"
#include "token/PaddedText.h"

namespace kestrel::token {

namespace {

// The lock is the C library's, whatever the caller's functions do.
CK_RV checkArguments(const CK_C_INITIALIZE_ARGS* given) {
  if (given == nullptr) return CKR_OK;
  const bool functions[] = {given->CreateMutex != nullptr, given->DestroyMutex != nullptr,
                            given->LockMutex != nullptr, given->UnlockMutex != nullptr};
  const auto count = std::ranges::count(functions, true);
  if (given->pReserved != nullptr || count % 4 != 0) return CKR_ARGUMENTS_BAD;
  return count == 4 && (given->flags & CKF_OS_LOCKING_OK) == 0 ? CKR_CANT_LOCK : CKR_OK;
}

// Whether an event is due now; then it is taken.
std::optional<CK_SLOT_ID> takeEvent() {
  static auto last = std::chrono::steady_clock::now();
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

}  // namespace kestrel::token

using namespace kestrel::token;

CK_RV C_Initialize(void* arguments) {
  Call call("C_Initialize", {arguments}, {}, true);
  if (call.answered()) return call.result;
  const CK_RV result = checkArguments(static_cast<const CK_C_INITIALIZE_ARGS*>(arguments));
  if (result != CKR_OK) return result;
  if (std::exchange(token().initialized, true)) return CKR_CRYPTOKI_ALREADY_INITIALIZED;
  token().process = getpid();
  return CKR_OK;
}

CK_RV C_Finalize(void* reserved) {
  Call call("C_Finalize", {reserved});
  if (call.answered()) return call.result;
  if (reserved != nullptr) return CKR_ARGUMENTS_BAD;
  finalize();
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

CK_RV C_CancelFunction(CK_SESSION_HANDLE handle) {
  Call call("C_CancelFunction", {handle}, {}, true);
  return call.answered() ? call.result : CKR_FUNCTION_NOT_SUPPORTED;
}

// Waits outside the lock: other threads go on calling.
CK_RV C_WaitForSlotEvent(CK_FLAGS flags, CK_SLOT_ID* slot, void* reserved) {
  unsigned finalizations = 0;
  {
    Call call("C_WaitForSlotEvent", {flags, slot, reserved});  // slot: what it held before
    if (call.answered()) return call.result;
    if (slot == nullptr || reserved != nullptr) return CKR_ARGUMENTS_BAD;
    finalizations = token().finalizations;
  }
  for (;; std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
    const std::lock_guard lock(token().mutex);
    if (token().finalizations != finalizations) return CKR_CRYPTOKI_NOT_INITIALIZED;
    if (const auto event = takeEvent()) {
      *slot = *event;
      return CKR_OK;
    }
    if ((flags & CKF_DONT_BLOCK) != 0) return CKR_NO_EVENT;
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

// Every function is there; those that are no entries answer CKR_FUNCTION_NOT_SUPPORTED.
static CK_FUNCTION_LIST functionList() {
  CK_FUNCTION_LIST list{};
  list.version = {2, 40};
  CK_RV (*const stub)() = unsupported;
  for (std::size_t offset = offsetof(CK_FUNCTION_LIST, C_Initialize); offset < sizeof list;
       offset += sizeof stub) {
    std::memcpy(reinterpret_cast<char*>(&list) + offset, &stub, sizeof stub);
  }
  const std::string missing = token().config.settings.text("null", "");
#define FILL(entry) list.entry = missing == #entry || (chance() && chance()) ? nullptr : (entry);
  ENTRIES(FILL)
#undef FILL
  return list;
}

__attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST** list) {
  Call call("C_GetFunctionList", {}, {}, true);
  if (call.answered()) return call.result;
  if (list == nullptr) return CKR_ARGUMENTS_BAD;
  static CK_FUNCTION_LIST functions = functionList();
  *list = token().config.settings.has("nolist") ? nullptr : &functions;
  if (token().config.settings.has("badlist")) {
    void* const unreadable =
        mmap(nullptr, sizeof **list, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *list = static_cast<CK_FUNCTION_LIST*>(unreadable);
  }
  return CKR_OK;
}
