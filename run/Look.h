// A look at a module before its tests: whose PIN is going to be asked for, and what is tested. It
// has a process of its own, and no login.
#pragma once

#include "run/Options.h"
#include "run/process/Interrupt.h"
#include "run/results/Facts.h"

namespace kestrel::run {

// What the module says of itself and its tokens. Little or nothing where it does not answer within
// ten seconds, crashes or cannot be loaded: its tests find out why.
ModuleFacts look(const Options& options, const NamedModule& module, Interrupt& interrupt);

// The word that makes this program the process that looks, at the module whose path comes next.
inline constexpr const char* lookWord = "--look-at";

// Prints what it sees. The exit status.
int lookAt(const char* path);

}  // namespace kestrel::run
