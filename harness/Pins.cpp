// PINs by slot position: from "-pw", or from the operator's terminal.
#include <openssl/crypto.h>

#include <array>
#include <cstring>
#include <iostream>

#include "harness/Report.h"
#include "harness/Terminal.h"
#include "harness/TestManager.h"

void TestManager::setPin(const char* pin, std::uint64_t position) {
  const std::size_t length = std::strlen(pin);
  if (length > maxPinLength) {
    std::cout << "pin length greater than " << std::dec << maxPinLength << "exiting program";
    endProgram(-1);
  }
  if (PinStore.size() <= position) PinStore.resize(position + 1);
  PinStore[position] = Pin({pin, length});
}

void TestManager::getPin(std::uint64_t position) {
  if (position < PinStore.size()) {
    std::cout << "Using Pin entered in previous test\n";
    return;
  }
  PinStore.resize(position + 1);
  std::array<char, Pin::maxLength> typed{};
  std::cout << std::dec << "Enter PIN for the card in slot " << position
            << " (max length = " << maxPinLength << "): ";
  if (!debug) echoOff();
  std::cout << std::flush;  // after that, so that not even a PIN typed at once is echoed
  readLine(typed.data(), typed.size());
  if (!debug) echoOn();
  setPin(typed.data(), position);
  OPENSSL_cleanse(typed.data(), typed.size());
}

// Each login hands the module a copy: what it writes over a PIN is not what the next test tries.

void TestManager::loginUser(CK_SESSION_HANDLE session, std::uint64_t position) {
  getPin(position);
  Pin pin = PinStore[position];
  require(p11::C_Login, session, CKU_USER, pin.data(), pin.length());
}

void TestManager::loginContextSpecific(CK_SESSION_HANDLE session, std::uint64_t position) {
  Pin pin = PinStore[position];
  requireResult("CKU_CONTEXT_SPECIFIC C_Login",
                p11::C_Login(session, CKU_CONTEXT_SPECIFIC, pin.data(), pin.length()));
}
