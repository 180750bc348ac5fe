// Standard input as a terminal: reading a line, with or without echo.
#pragma once

#include <cstddef>

namespace kestrel {

// Switches the echo of standard input off (ECHO alone; the rest of the terminal's modes stay).
// Returns false when there is no terminal. Until echoOn(), every end of the process restores the
// terminal first (see ProcessEnd.h), and a stop (Ctrl-Z) gives the shell its terminal as it was.
bool echoOff();

// Gives the terminal back the modes that echoOff() found.
void echoOn();

// Restores the terminal if echo is off. Async-signal-safe, for handlers of ending signals.
void restoreEcho();

// Reads one line from standard input into `buffer` of `size` bytes: at most size - 1 characters and
// a terminating zero, without the newline. The rest of a longer line is dropped, so that it never
// becomes the answer to the next question; the end of input ends the line. Nothing of the line
// stays in a buffer of the process.
void readLine(char* buffer, std::size_t size);

}  // namespace kestrel
