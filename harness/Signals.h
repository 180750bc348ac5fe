// What the operator still learns when the module or a signal ends the process.
#pragma once

// Installs handlers for the signals that end kestrel: crashes (SIGSEGV, SIGBUS, SIGFPE, SIGILL,
// SIGABRT) and the operator's and shell's (SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, unless they
// are ignored). Each gives the terminal its echo back, says on standard error in which call the
// module was, keeps the report written so far, and then lets the signal have its default effect. A
// stack overflow on the calling thread is met as well. A module that calls exit() is named too, and
// the process ends with status 1.
void installSignalHandlers();

// Gives the calling thread, other than the first, the stack on which a handler runs after an
// overflow. To be called once by the thread.
void useSignalStack();
