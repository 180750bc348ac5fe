// What the two signing tests share: the message, the data formed for a mechanism, and the walk over
// tokens, keys and mechanisms. Each test adds only its way of making one signature.
#pragma once

#include <array>
#include <vector>

#include "harness/Pkcs11.h"

// One signature in the making. The module sees its storage, so it is not copied.
struct Signing {
  explicit Signing(CK_SESSION_HANDLE openSession) : session(openSession) {}
  Signing(const Signing&) = delete;
  Signing& operator=(const Signing&) = delete;

  // Forms the data and the mechanism parameter that `type` takes.
  void form(CK_MECHANISM_TYPE type);

  // C_SignInit, reported.
  void init();

  CK_SESSION_HANDLE session;
  CK_OBJECT_HANDLE key = 0;
  CK_MECHANISM mechanism{};  // the module gets a copy: what it writes there decides nothing
  CK_RSA_PKCS_PSS_PARAMS pssParameters{};
  std::array<CK_BYTE, 256> data{};
  CK_ULONG dataLength = 0;
  std::vector<CK_BYTE> signature = std::vector<CK_BYTE>(512);
  CK_ULONG signatureLength = 512;  // set once; afterwards as the module leaves it
};

// Dumps the message under its heading: always the message, also where its hash is signed.
void dumpMessage();

// How a test makes one signature.
struct SigningWay {
  const char* outputName;   // the call that gives the signature, as its report line names it
  const char* loginNotice;  // printed when that call asks for a context-specific login
  void (*begin)(Signing&);  // C_SignInit and the dump of the message, in the test's order
  void (*feed)(Signing&);   // the calls between C_SignInit and the output
  CK_RV (*output)(Signing&, CK_BYTE* signature);  // null `signature`: asks for its length
};
