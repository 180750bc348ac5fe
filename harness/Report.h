// The report line of every PKCS#11 call, and the ways in which the process ends.
#pragma once

#include "harness/Module.h"

// Ends the process: `status` goes to the shell, buffered output is flushed, PINs are wiped, nothing
// else is undone (no C_Finalize, no unloading). The first thread that asks for it wins; a second
// one waits.
[[noreturn]] void endProgram(int status);

// Stops the calling thread for good once another one ends the process. A thread that writes in a
// loop asks before each line: the last flush takes no lock, and would write lines of it twice.
void stopIfEnding();

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
