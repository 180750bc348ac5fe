#include "harness/Report.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "harness/CkrName.h"
#include "harness/Pin.h"

namespace {

std::atomic_flag ending;

}  // namespace

void endProgram(int status) {
  while (ending.test_and_set()) pause();
  Pin::wipeAll();
  std::exit(status);
}

void stopIfEnding() {
  while (ending.test()) pause();
}

bool reportCall(const char* name, CK_RV returnValue, CK_RV expected) {
  std::string line;
  const bool passed = returnValue == expected;
  if (passed) {
    line.append(name).append("() passed\n");
  } else {
    const auto shown = static_cast<std::uint32_t>(returnValue);
    std::array<char, 8> digits;
    const char* const end = std::to_chars(digits.begin(), digits.end(), shown, 16).ptr;
    line.append("!!! ").append(name).append("() failed : 0x").append(digits.cbegin(), end);
    line.append("!!! [").append(ckrName(shown)).append("]\n");
    std::cout << std::dec;
  }
  std::cout << line;  // in one piece: another thread may be writing too
  return passed;
}

void requireResult(const char* name, CK_RV returnValue, CK_RV expected) {
  if (!reportCall(name, returnValue, expected)) endProgram(1);
}
