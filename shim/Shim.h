// The module behind and the state of the shim, for as long as the shim is loaded.
#pragma once

#include <array>
#include <atomic>
#include <type_traits>

#include "shim/Settings.h"
#include "shim/Signatures.h"
#include "shim/Trace.h"

// Loads the module behind when it is loaded itself, and unloads it likewise: what a module does
// then happens within the same call of the loader as without the shim. At the end of the process
// nothing is unloaded, as without the shim: threads may still be in a call.
class Shim {
 public:
  Shim();
  ~Shim();
  Shim(const Shim&) = delete;
  Shim& operator=(const Shim&) = delete;

  // Says what is wrong with what the operator told, if anything is.
  void reportProblem() const;

  // A waiver steps in for a refused call, or takes that back.
  void note(char sign, Waiver waiver);

  Settings settings;
  Trace trace;
  Signatures signatures;
  CK_FUNCTION_LIST changes{};                       // what stands before functions of the module
  std::atomic<CK_FUNCTION_LIST*> module = nullptr;  // the functions behind; owned by the module
  CK_C_GetFunctionList getFunctionList = nullptr;

 private:
  void configure();
  void load();

  std::array<char, 512> problem_{};  // empty when all is well
  void* library_ = nullptr;
  int used_ = -1;
};

extern Shim& shim;

// Calls a function of the module behind. One that it does not have is a failed call.
template <typename... Parameters>
CK_RV ask(CK_RV (*CK_FUNCTION_LIST::*entry)(Parameters...),
          std::type_identity_t<Parameters>... arguments) {
  const CK_FUNCTION_LIST* const module = shim.module;
  const auto function = module == nullptr ? nullptr : module->*entry;
  return function == nullptr ? CKR_FUNCTION_FAILED : function(arguments...);
}
