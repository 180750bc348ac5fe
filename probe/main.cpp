// kestrel-probe: everything that a module claims, tried.
#include <cstdio>
#include <exception>

#include "probe/Probe.h"
#include "probe/ProbeOptions.h"

int main(int argc, char** argv) {
  using namespace kestrel::probe;
  try {
    const CommandLine line = readCommandLine(argc, argv);
    return line.status ? *line.status : runProbe(line.options);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "kestrel-probe: %s\n", exception.what());
  }
  return 2;
}
