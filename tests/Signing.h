// What the two signing tests share: the message, the data formed for a mechanism, and the walk over
// tokens, keys and mechanisms. Each test adds only its way of making one signature.
#pragma once

#include <array>
#include <vector>

#include "harness/TestManager.h"

namespace kestrel {

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

// Walks the keys and mechanisms of one token, and makes and verifies a signature with each.
void signEach(TestManager& manager, const SigningWay& way, CK_SESSION_HANDLE session,
              std::span<const CK_MECHANISM_TYPE> mechanisms, std::uint32_t slotIndex);

// What a test does with one token: TestManager::signWithKeys() and signByUpdate().
using SigningOperation = CK_RV (TestManager::*)(CK_SESSION_HANDLE session,
                                                const CK_MECHANISM_TYPE* mechanisms,
                                                CK_ULONG mechanismCount, std::uint32_t slotIndex);

// Logs in to every token, runs `operation` on it with the token's mechanisms and logs out; its
// result is reported under `reportName` unless that is null.
void signOnTokens(TestManager& manager, SigningOperation operation, const char* reportName);

}  // namespace kestrel
