// The report line of every PKCS#11 call, and the ways in which the process ends.
#pragma once

#include <string_view>

#include "harness/Module.h"

// Ends the process: PINs are wiped, the report is flushed behind `lastLine`, `status` goes to the
// shell, nothing else is undone (no C_Finalize, no unloading). The first thread that asks for it
// wins; others stop.
[[noreturn]] void endProgram(int status, std::string_view lastLine = "");

// To be called before a second thread is started. From then on endProgram() leaves the module's own
// exit handlers out, since the other thread may be inside the module, and no thread writes a line
// after it.
void expectSecondThread();

// Writes the report line of a call named `name` and ends the process with status 1 unless the call
// passed: "NAME() passed" when `returnValue` is `expected` in all its 64 bits, otherwise the
// failure line with the value's low 32 bits in hexadecimal and its name. A failure line leaves
// standard output decimal; a passed line leaves its base alone.
void requireResult(const char* name, CK_RV returnValue, CK_RV expected = CKR_OK);

// Calls `function` and requires CKR_OK, under the function's own name.
template <typename... Parameters>
void require(const ModuleFunction<Parameters...>& function,
             std::type_identity_t<Parameters>... arguments) {
  requireResult(function.name, function(arguments...));
}
