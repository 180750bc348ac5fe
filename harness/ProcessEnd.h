// The ways in which the process ends by kestrel's hand, and by somebody else's.
#pragma once

#include <string_view>

namespace kestrel {

// Ends the process: PINs are wiped, the report is written behind `lastLine`, `status` goes to the
// shell (1 if the report could not be written), nothing else is undone (no C_Finalize, no
// unloading). The first thread that asks for it wins and others stop; the same thread a second time
// (from an exit handler of the module) ends at once with status 1.
[[noreturn]] void endProgram(int status, std::string_view lastLine = "");

// To be called before a second thread is started. From then on endProgram() leaves the module's own
// exit handlers out, since the other thread may be inside the module.
void expectSecondThread();

// Sees to it that what is due of the report is out. Ends the process with status 1 when it cannot
// be written.
void settleReport();

// The same for all that is pending, due or not.
void flushReport();

// From now on an end that is not kestrel's (exit(), quick_exit() or _exit() from any thread) is
// named on standard error, and the status is 1. So is an exception that leaves what the module does
// at an exit.
void refuseForeignEnds();

// What the exception that is being handled says of itself.
const char* whatWasThrown();

// What is owed to the operator before the process goes, after the line that says why: the echo of
// the terminal, no PIN in a core file, the report. For handlers.
void tidyUp();

}  // namespace kestrel
