#include "harness/Module.h"

#include <cstdio>
#include <exception>

#include "harness/Report.h"

CK_FUNCTION_LIST* functionList = nullptr;

constinit thread_local const char* volatile CallInFlight::current = nullptr;

void endAfterModuleException(const char* name) {
  const char* what = "not a std::exception";
  try {
    throw;
  } catch (const std::exception& exception) {
    what = exception.what();
  } catch (...) {
  }
  std::fflush(stdout);
  std::fprintf(stderr, "kestrel: an exception left the module's %s(): %s\n", name, what);
  endProgram(1);
}
