// PINs by slot position: from "-pw", or from the operator's terminal.
#include <cstring>

#include "harness/Report.h"
#include "harness/Signals.h"
#include "harness/StandardStream.h"
#include "harness/Terminal.h"
#include "harness/TestManager.h"

namespace kestrel {

namespace {

// What the module put in the place of standard input is no PIN of the operator's.
void requireInput() {
  if (standardInput.descriptor() >= 0) return;
  sayError({"kestrel: the module took standard input\n"});
  endProgram(1);
}

}  // namespace

void TestManager::setPin(const char* pin, std::uint64_t position) {
  const std::size_t length = std::strlen(pin);
  if (length > maxPinLength) {
    report << "pin length greater than " << std::dec << maxPinLength << "exiting program";
    endProgram(-1);
  }
  if (PinStore.size() <= position) PinStore.resize(position + 1);
  PinStore[position] = Pin({pin, length});
}

void TestManager::getPin(std::uint64_t position) {
  if (position < PinStore.size()) {
    report << "Using Pin entered in previous test\n";
    return;
  }
  PinStore.resize(position + 1);
  Pin typed;
  const auto text = reinterpret_cast<char*>(typed.data());
  report << std::dec << "Enter PIN for the card in slot " << position
         << " (max length = " << maxPinLength << "): ";
  const SignalsMet signals;
  requireInput();
  if (!debug && !echoOff()) {
    sayError({"Error getting terminal attributes\n"});
    endProgram(-1);
  }
  flushReport();  // after that, so that not even a PIN typed at once is echoed
  // The prompt speaks of 31 bytes, and a PIN given with "-pw" may have them. Of a typed one 30 are
  // taken: the 31st byte that is read into is for the zero behind it.
  readLine(text, Pin::maxLength);
  requireInput();  // a thread of the module may have taken it only now
  if (!debug) echoOn();
  setPin(text, position);
}

Pin TestManager::storedPin(std::uint64_t position) const {
  return position < PinStore.size() ? PinStore[position] : Pin();
}

void TestManager::loginUser(CK_SESSION_HANDLE session, std::uint64_t position) {
  getPin(position);
  Pin pin = storedPin(position);
  require(p11::C_Login, session, CKU_USER, pin.data(), pin.length());
}

void TestManager::loginContextSpecific(CK_SESSION_HANDLE session, std::uint64_t position) {
  Pin pin = storedPin(position);
  requireResult("CKU_CONTEXT_SPECIFIC C_Login",
                p11::C_Login(session, CKU_CONTEXT_SPECIFIC, pin.data(), pin.length()));
}

}  // namespace kestrel
