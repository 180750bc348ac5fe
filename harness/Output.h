// Standard output and standard error as kestrel writes them. The module shares both descriptors,
// the C library's streams and std::cout with kestrel and may spoil them all: what kestrel writes
// has a buffer of its own, goes to the streams that the process got (StandardStream.h), and is
// written by the process that started only. A process that the module forked ends where it would
// write a report of its own.
#pragma once

#include <initializer_list>
#include <ostream>
#include <string_view>

namespace kestrel {

// The report. Its integer base and fill character are state that tests share, and part of what
// reports are compared by. For the first thread; others write whole lines by writeReport().
extern std::ostream& report;

// To be called first of all, by the process whose report this is to be. Opens a closed standard
// stream to nothing: it must not become the number of a file or socket that a module opens.
void openOutput();

// Whether this is that process, not a child that the module forked.
bool isOwnProcess();

// Adds `text` in one piece, from any thread.
void writeReport(std::string_view text);

// From now on pending text is not due before each call: it goes out in blocks. Not so to a
// terminal.
void batchReport();

// Whether there is something to do before foreign code runs: text to be written, or the run to be
// ended because a write failed.
bool reportIsDue();

// Writes what is pending. Returns false when a write fails or one before it has failed. The first
// failure is said on standard error, and nothing is written after it.
bool sendReport();

// Writes what is pending and `lastLine`; nobody adds anything afterwards. Returns as sendReport().
bool finishReport(std::string_view lastLine);

// Writes what the module left in the buffers of stdout and std::cout, so that it keeps its place.
void sendForeignText();

// sendReport() and sendForeignText() for a signal handler, wherever it interrupted whichever
// thread.
void salvageReport();

// Whether a thread of the module holds stdout: whoever flushes it waits, perhaps for ever.
bool stdoutIsHeld();

// Writes a message to standard error in one piece; for handlers too.
void putError(std::initializer_list<std::string_view> pieces);

// sendReport(), then putError(): where both streams are one, the message comes after the report.
void sayError(std::initializer_list<std::string_view> pieces);

}  // namespace kestrel
