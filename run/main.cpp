// Wires the program: the command line, the runs, and what is written of them.
#include <cstdio>
#include <exception>

#include "run/Options.h"

int main(int argc, char** argv) {
  try {
    const CommandLine line = readCommandLine(argc, argv);
    if (line.status) return *line.status;
    return 0;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "kestrel-run: %s\n", exception.what());
    return 2;
  }
}
