// Wires the process: descriptors, signals, the command line, and the last word on what escapes it.
#include <exception>

#include "app/CommandLine.h"
#include "harness/Output.h"
#include "harness/ProcessEnd.h"
#include "harness/Signals.h"

using namespace kestrel;

int main(int argc, char** argv) {
  openOutput();
  installSignalHandlers();
  refuseForeignEnds();
  try {
    endProgram(runCommandLine(argc, argv));
  } catch (const std::exception& exception) {
    sayError({"kestrel: ", exception.what(), "\n"});
  }
  endProgram(1);
}
