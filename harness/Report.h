// The report line of every PKCS#11 call.
#pragma once

#include <type_traits>

#include "harness/Module.h"

namespace kestrel {

// Writes the report line of a call named `name` and ends the process with status 1 unless the call
// passed: "NAME() passed" when `returnValue` is `expected` in all its 64 bits, otherwise the
// failure line with the value's low 32 bits in hexadecimal and its name. A failure line leaves the
// report decimal; a passed line leaves its base alone.
void requireResult(const char* name, CK_RV returnValue, CK_RV expected = CKR_OK);

// Calls `function` and requires CKR_OK, under the function's own name.
template <typename... Parameters>
void require(const ModuleFunction<Parameters...>& function,
             std::type_identity_t<Parameters>... arguments) {
  requireResult(function.name, function(arguments...));
}

// Writes "LABEL: return value: " and the whole value in decimal, and closes the session, whatever
// comes of that. Returns the value.
CK_RV printReturnAndClose(CK_SESSION_HANDLE session, const char* label, CK_RV returnValue);

}  // namespace kestrel
