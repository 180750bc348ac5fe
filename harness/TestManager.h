// The one object of the program: the loaded module, the operator's options, and every test.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <vector>

#include "harness/CertKeyRecord.h"
#include "harness/KnownCard.h"
#include "harness/Pin.h"
#include "harness/Pkcs11.h"

// Every test is a member operation without arguments. A PKCS#11 result that a test does not expect
// prints its failure line and ends the process with status 1; unless said otherwise a test that
// returns has passed and returns CKR_OK. Not thread-safe; one instance lives in main().
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

  // Runs the twelve tests of "all" on this object, without a set-up of their own.
  void runAll();

  // tests/Listings.cpp: what the module says of itself, its slots and its tokens.
  CK_RV libInfo();
  CK_RV listSlots();
  CK_RV listTokens();
  // tests/Login.cpp: logs in to every token and out again.
  CK_RV login();
  // tests/FindObjects.cpp: searches certificates and keys, shows the certificates' labels.
  CK_RV findObjectsTest();
  // tests/OpensslVersion.cpp: the libcrypto in use. Leaves standard output in hexadecimal.
  void printOpensslVersion();

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

  // Finalises and unloads the module, once, however often setup() ran. Returns what C_Finalize did.
  CK_RV teardown();

  // Fetches all slots into slotList; no slot at all ends the process with status 1.
  CK_RV populateSlotList();
  std::span<const CK_SLOT_ID> slots() const { return {slotList.get(), slotCount}; }

  // Sees to it that PinStore has an entry for `position`, by asking the operator if need be.
  void getPin(std::uint64_t position);
  // getPin(), then C_Login as CKU_USER with the PIN of `position`; reported.
  void loginUser(CK_SESSION_HANDLE session, std::uint64_t position);
};
