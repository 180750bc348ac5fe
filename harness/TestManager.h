// The one object of the program: the loaded module, the operator's options, and every test.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "harness/CertKeyRecord.h"
#include "harness/KnownCard.h"
#include "harness/Openssl.h"
#include "harness/Pin.h"
#include "harness/Pkcs11.h"

namespace kestrel {

// Every test is a member operation without arguments. A PKCS#11 result that a test does not expect
// prints its failure line and ends the process with status 1; unless said otherwise a test that
// returns has passed and returns CKR_OK. Not thread-safe; one instance lives as long as the command
// line runs.
class TestManager {
 public:
  TestManager();
  ~TestManager();
  TestManager(const TestManager&) = delete;
  TestManager& operator=(const TestManager&) = delete;

  // Loads ./libnorvalepk11.so, fetches its function list and calls C_Initialize. Ends the process
  // with status 1 when the module cannot be loaded or initialised; returns 1 when only
  // C_GetFunctionList failed. Runs before every named test, also with a module already loaded.
  CK_RV setup();

  // Stores `pin` (zero-terminated) for a slot position. A PIN of more than maxPinLength bytes ends
  // the process with status -1 (255).
  void setPin(const char* pin, std::uint64_t position);

  // Runs the tests of "all" on this object, without a set-up of their own.
  void runAll();

  // cards/PrintInfo.cpp: the module, the readers, their cards and tokens. Returns what its last
  // PKCS#11 call did, unchecked.
  CK_RV printInfo();
  // tests/Listings.cpp: what the module says of itself, its slots and its tokens.
  CK_RV libInfo();
  CK_RV listSlots();
  CK_RV listTokens();
  // tests/Login.cpp: logs in to every token and out again.
  CK_RV login();
  // tests/SignData.cpp, tests/SignUpdate.cpp: sign with every mechanism of every token and verify.
  CK_RV signData();
  CK_RV signUpdate();
  // tests/DecryptData.cpp, tests/DecryptUpdate.cpp: have the token decrypt what OpenSSL encrypted.
  CK_RV decryptData();
  CK_RV decryptUpdate();
  // tests/FindObjects.cpp: searches certificates and keys, shows the certificates' labels.
  CK_RV findObjectsTest();
  // cards/Certificates.cpp: lists the certificates that every token shows without login, and
  // initialises the module afresh.
  CK_RV displayCertificates();
  // tests/OpensslVersion.cpp: the libcrypto in use. Leaves standard output in hexadecimal.
  void printOpensslVersion();
  // tests/NegativeTests.cpp: calls that must fail, each with one exact error. Returns the result of
  // the last one.
  CK_RV negativeTests();
  // tests/SlotEvents.cpp: slot events while the operator moves the card; slot events polled by a
  // second thread, until an error or the operator ends the process.
  CK_RV dontBlockTest();
  [[noreturn]] void waitTest();
  // tests/TokenInfo.cpp: the flags of the user PIN on its way to being locked.
  CK_RV tokenInfoTest();
  // tests/ChangePin.cpp: changes every user PIN and changes it back. Returns what the first failed
  // call with a session returned: that ends the test, not the process.
  CK_RV changePinTest();

  // tests/Discovery.cpp. Fills certKeyMap for a slot position with every private key of the token
  // on which `session` is logged in, and the public key and certificate of the same CKA_ID.
  void getAllCertsAndKeys(CK_SESSION_HANDLE session, std::uint32_t slotIndex);
  // The first object of a class, 0 (and a line on standard error) when there is none.
  CK_OBJECT_HANDLE findObjectByClass(CK_SESSION_HANDLE session, CK_OBJECT_CLASS objectClass);

  // tests/Verification.cpp. The public key of a record's certificate; null without a word when the
  // certificate has none.
  KeyOwner getPublicKey(CK_SESSION_HANDLE session, const CertKeyRecord& record);
  // Checks a signature of `data`, the message itself, by the rules of `mechanism`. Returns
  // CKR_FUNCTION_FAILED for a wrong PSS signature; a wrong PKCS#1 v1.5 one ends the process with
  // status 1. A mechanism without a check passes.
  CK_RV verifySig(CK_SESSION_HANDLE session, CK_MECHANISM_TYPE mechanism, const CK_BYTE* data,
                  CK_ULONG dataLength, const CK_BYTE* signature, CK_ULONG signatureLength,
                  const CertKeyRecord& record);

  // What signData and signUpdate do with one token, on whose session the user is logged in.
  CK_RV signWithKeys(CK_SESSION_HANDLE session, const CK_MECHANISM_TYPE* mechanisms,
                     CK_ULONG mechanismCount, std::uint32_t slotIndex);
  CK_RV signByUpdate(CK_SESSION_HANDLE session, const CK_MECHANISM_TYPE* mechanisms,
                     CK_ULONG mechanismCount, std::uint32_t slotIndex);
  // What decryptData and decryptUpdate do with it. Return all ones for a message too long.
  CK_RV decryptWithKeyPairs(CK_SESSION_HANDLE session, CK_ULONG slotPosition);
  CK_RV decryptByUpdate(CK_SESSION_HANDLE session, CK_ULONG slotPosition);

  // What the tests build on. Fetches all slots for slots(); no slot at all ends the process with
  // status 1.
  CK_RV populateSlotList();
  std::span<const CK_SLOT_ID> slots() const { return {slotList.get(), slotCount}; }

  // Sees to it that there is a PIN for `position`, by asking the operator if need be.
  void getPin(std::uint64_t position);
  // That PIN; an empty one for a position that has none. A module gets no other than a copy: what
  // it writes over a PIN is not what the next test tries.
  Pin storedPin(std::uint64_t position) const;
  // getPin(), then C_Login as CKU_USER with the PIN of `position`; reported.
  void loginUser(CK_SESSION_HANDLE session, std::uint64_t position);
  // C_Login as CKU_CONTEXT_SPECIFIC with the PIN of `position`, for a key that wants it before
  // every use; reported.
  void loginContextSpecific(CK_SESSION_HANDLE session, std::uint64_t position);

  // tests/Discovery.cpp. The keys of a slot position that a test uses: all, or the first while
  // firstCertificateOnly is set. Runs discovery with `session` while nothing was discovered for any
  // slot.
  std::span<const CertKeyRecord> keysToTest(CK_SESSION_HANDLE session, std::uint32_t slotIndex);

  bool firstCertificateOnly = true;  // cleared by "-a": the key tests use every key
  bool debug = false;                // set by "-d": the PIN prompt leaves echo on

 private:
  CK_ULONG objectCount = 0;                     // of the last C_FindObjects of key discovery
  std::vector<KnownCard> knownCards;            // for printInfo; nothing ever fills it
  std::uint32_t maxPinLength = Pin::maxLength;  // bytes
  void* moduleHandle = nullptr;            // of the dynamic loader; null while nothing is loaded
  std::unique_ptr<CK_SLOT_ID[]> slotList;  // slotCount entries
  CK_ULONG slotCount = 0;
  std::vector<Pin> PinStore;           // by slot position
  CK_ULONG maxDescriptionLength = 32;  // bytes of the library description that libInfo prints
  std::map<std::uint32_t, std::vector<CertKeyRecord>> certKeyMap;  // by slot position
  // The public key of the certificate that was decoded last: a test checks many signatures with it.
  std::string decodedCertificate;
  KeyOwner decodedKey;

  // Finalises and unloads the module, once, however often setup() ran. Returns what C_Finalize
  // returned, CKR_OK without a module.
  CK_RV teardown();

  // The parts of negativeTests(), each returning the result of its last case.
  CK_RV negativeLibraryTests();
  CK_RV negativeSessionTests();
  CK_RV negativeLoginTests();
};

}  // namespace kestrel
