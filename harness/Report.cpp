#include "harness/Report.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <string>

#include "harness/CkrName.h"

namespace kestrel {

namespace {

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

void requireResult(const char* name, CK_RV returnValue, CK_RV expected) {
  const bool passed = returnValue == expected;
  const std::string line = passed ? passedLine(name) : failureLine(name, returnValue);
  if (!passed) report << std::dec;
  report << line;  // in one piece: another thread may be writing too
  if (!passed) endProgram(1);
}

CK_RV printReturnAndClose(CK_SESSION_HANDLE session, const char* label, CK_RV returnValue) {
  report << label << ": return value: " << std::dec << returnValue << std::endl;
  p11::C_CloseSession(session);
  return returnValue;
}

}  // namespace kestrel
