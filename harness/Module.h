// The loaded PKCS#11 module, and the one place through which every call into it passes.
#pragma once

#include <type_traits>

#include "harness/Pkcs11.h"

// The module's functions; null until TestManager::setup() has fetched them. Owned by the module.
extern CK_FUNCTION_LIST* functionList;

// Ends the process with status 1 after saying on standard error what escaped from call `name`.
[[noreturn]] void endAfterModuleException(const char* name);

// Names the call that is under way on this thread, for whoever has to say where a module died: a
// PKCS#11 function, or the loader's that runs the module's code.
class CallInFlight {
 public:
  explicit CallInFlight(const char* name) { current = name; }
  ~CallInFlight() { current = nullptr; }
  CallInFlight(const CallInFlight&) = delete;
  CallInFlight& operator=(const CallInFlight&) = delete;

  // The name of this thread's call, null while no call is under way.
  static const char* name() { return current; }

  // The process ends by its own hand now, wherever it stands.
  static void forget() { current = nullptr; }

 private:
  static thread_local const char* volatile current;
};

// Calls `function` of the module with `arguments`, unchanged and in order. A function that the
// module does not have is a failed call: CKR_FUNCTION_FAILED. The result is never truncated.
template <typename... Parameters>
CK_RV callModule(const char* name, CK_RV (*function)(Parameters...),
                 std::type_identity_t<Parameters>... arguments) {
  if (function == nullptr) return CKR_FUNCTION_FAILED;
  const CallInFlight inFlight(name);
  try {
    return function(arguments...);
  } catch (...) {
    endAfterModuleException(name);
  }
}

// The longest attribute, signature or plaintext that is taken for an answer, in bytes.
inline constexpr CK_ULONG maxAnswerLength = CK_ULONG{1} << 20;

// What a module said, unless it said CKR_OK to nonsense: then CKR_FUNCTION_FAILED. `sane` is the
// caller's bound on the count or length that came back with `returnValue`.
inline CK_RV ifSane(CK_RV returnValue, bool sane) {
  return returnValue == CKR_OK && !sane ? CKR_FUNCTION_FAILED : returnValue;
}

// One entry of the module's function list: p11::C_Login(session, ...) calls it.
template <typename... Parameters>
struct ModuleFunction {
  using Pointer = CK_RV (*)(Parameters...);

  constexpr ModuleFunction(const char* functionName, Pointer CK_FUNCTION_LIST::*listEntry)
      : name(functionName), entry(listEntry) {}

  CK_RV operator()(Parameters... arguments) const {
    return callModule(name, functionList == nullptr ? nullptr : functionList->*entry, arguments...);
  }

  const char* name;
  Pointer CK_FUNCTION_LIST::*entry;
};

namespace p11 {

#define KESTREL_MODULE_FUNCTION(function) \
  inline constexpr ModuleFunction function(#function, &CK_FUNCTION_LIST::function)

KESTREL_MODULE_FUNCTION(C_Initialize);
KESTREL_MODULE_FUNCTION(C_Finalize);
KESTREL_MODULE_FUNCTION(C_GetInfo);
KESTREL_MODULE_FUNCTION(C_GetFunctionList);
KESTREL_MODULE_FUNCTION(C_GetSlotList);
KESTREL_MODULE_FUNCTION(C_GetSlotInfo);
KESTREL_MODULE_FUNCTION(C_GetTokenInfo);
KESTREL_MODULE_FUNCTION(C_GetMechanismList);
KESTREL_MODULE_FUNCTION(C_GetMechanismInfo);
KESTREL_MODULE_FUNCTION(C_SetPIN);
KESTREL_MODULE_FUNCTION(C_OpenSession);
KESTREL_MODULE_FUNCTION(C_CloseSession);
KESTREL_MODULE_FUNCTION(C_CloseAllSessions);
KESTREL_MODULE_FUNCTION(C_GetSessionInfo);
KESTREL_MODULE_FUNCTION(C_Login);
KESTREL_MODULE_FUNCTION(C_Logout);
KESTREL_MODULE_FUNCTION(C_GetAttributeValue);
KESTREL_MODULE_FUNCTION(C_FindObjectsInit);
KESTREL_MODULE_FUNCTION(C_FindObjects);
KESTREL_MODULE_FUNCTION(C_FindObjectsFinal);
KESTREL_MODULE_FUNCTION(C_DecryptInit);
KESTREL_MODULE_FUNCTION(C_Decrypt);
KESTREL_MODULE_FUNCTION(C_DecryptUpdate);
KESTREL_MODULE_FUNCTION(C_DecryptFinal);
KESTREL_MODULE_FUNCTION(C_SignInit);
KESTREL_MODULE_FUNCTION(C_Sign);
KESTREL_MODULE_FUNCTION(C_SignUpdate);
KESTREL_MODULE_FUNCTION(C_SignFinal);
KESTREL_MODULE_FUNCTION(C_SeedRandom);
KESTREL_MODULE_FUNCTION(C_GenerateRandom);
KESTREL_MODULE_FUNCTION(C_CancelFunction);
KESTREL_MODULE_FUNCTION(C_WaitForSlotEvent);

#undef KESTREL_MODULE_FUNCTION

}  // namespace p11
