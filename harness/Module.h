// The loaded PKCS#11 module, and the one place through which every call into it passes.
#pragma once

#include <memory>

#include "harness/CallInFlight.h"
#include "harness/Output.h"
#include "harness/Pkcs11.h"
#include "harness/ProcessEnd.h"

namespace kestrel {

// The module's functions; null until TestManager::setup() has fetched them. Owned by the module.
extern CK_FUNCTION_LIST* functionList;

// Ends the process with status 1 after saying on standard error what escaped from call `name`.
[[noreturn]] void endAfterModuleException(const char* name);

// Runs `function`, which calls foreign code, as the call `name`: what is due of the report is out
// before, and what the module printed is out behind it.
template <typename Function>
auto callForeign(const char* name, Function function) {
  settleReport();
  const CallInFlight inFlight(name);
  try {
    const auto result = function();
    sendForeignText();
    return result;
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

// One entry of the module's function list: p11::C_Login(session, ...) calls it with these
// arguments, unchanged and in order. A function that the module does not have is a failed call:
// CKR_FUNCTION_FAILED. The result is never truncated.
template <typename... Parameters>
struct ModuleFunction {
  using Pointer = CK_RV (*)(Parameters...);

  constexpr ModuleFunction(const char* functionName, Pointer CK_FUNCTION_LIST::*listEntry)
      : name(functionName), entry(listEntry) {}

  CK_RV operator()(Parameters... arguments) const {
    return callForeign(name, [&] {
      const Pointer function = functionList == nullptr ? nullptr : functionList->*entry;
      return function == nullptr ? CKR_FUNCTION_FAILED : function(arguments...);
    });
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

// A module that is loaded. It is unloaded with its owner.
struct Unloader {
  void operator()(void* handle) const;
};
using LoadedModule = std::unique_ptr<void, Unloader>;

// Loads a module, null if the loader will not: then loaderError() has its words.
LoadedModule loadModule(const char* path);

// The module's C_GetFunctionList; null, with loaderError(), when it has none.
CK_C_GetFunctionList findEntryPoint(const LoadedModule& module);

const char* loaderError();

}  // namespace kestrel
