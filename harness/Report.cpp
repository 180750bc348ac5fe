#include "harness/Report.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "harness/CkrName.h"
#include "harness/Pin.h"

namespace {

std::atomic_flag ending;
std::atomic<bool> secondThread = false;

std::string passedLine(const char* name) {
  return std::string(name).append("() passed\n");
}

std::string failureLine(const char* name, CK_RV returnValue) {
  const auto shown = static_cast<std::uint32_t>(returnValue);
  std::array<char, 8> digits;
  const char* const end = std::to_chars(digits.begin(), digits.end(), shown, 16).ptr;
  std::string line("!!! ");
  line.append(name).append("() failed : 0x").append(digits.cbegin(), end);
  return line.append("!!! [").append(ckrName(shown)).append("]\n");
}

}  // namespace

void endProgram(int status, std::string_view lastLine) {
  while (ending.test_and_set()) pause();
  CallInFlight::forget();
  Pin::wipeAll();
  if (secondThread) flockfile(stdout);  // for good
  std::fwrite(lastLine.data(), 1, lastLine.size(), stdout);
  std::fflush(stdout);  // before any exit handler of the module can crash
  if (secondThread) std::_Exit(status);
  std::exit(status);
}

void expectSecondThread() {
  secondThread = true;
}

void requireResult(const char* name, CK_RV returnValue, CK_RV expected) {
  const bool passed = returnValue == expected;
  const std::string line = passed ? passedLine(name) : failureLine(name, returnValue);
  if (!passed) std::cout << std::dec;
  std::cout << line;  // in one piece: another thread may be writing too
  if (!passed) endProgram(1);
}
