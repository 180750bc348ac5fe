// Wires the process: descriptors, signals, the command line, and the last word on what escapes it.
#include <fcntl.h>

#include <cstdio>
#include <exception>

#include "app/CommandLine.h"
#include "harness/Report.h"
#include "harness/Signals.h"

namespace {

// A closed standard stream must not become the number of a file or socket that a module opens: the
// report would be written into it.
void openStandardStreams() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0) open("/dev/null", O_RDWR);
  }
}

}  // namespace

int main(int argc, char** argv) {
  openStandardStreams();
  installSignalHandlers();
  try {
    endProgram(runCommandLine(argc, argv));
  } catch (const std::exception& exception) {
    std::fflush(stdout);
    std::fprintf(stderr, "kestrel: %s\n", exception.what());
  }
  endProgram(1);
}
