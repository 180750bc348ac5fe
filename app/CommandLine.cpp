#include "app/CommandLine.h"

#include <openssl/crypto.h>

#include <string_view>

#include "app/TestRegistry.h"
#include "harness/Output.h"

namespace {

constexpr std::string_view usage =
    R"(Usage: [option] [arguments]
Options:
  -pw [password]      Set the password.
  -d                  Run in debug mode.
  -a                  Run selected tests with every certificates.

Arguments:
  all                 Run all tests.
  printInfo           Print Reader and Token info.
  libInfo             Print PKCS#11 Lib info.
  listSlots           Print Slot info.
  listTokens          Print Token info.
  login               Test logging into card.
  signData            Test all Signing Mechanisms.
  decryptData         Test Decryption.
  findObjectsTest     Test Objects and Attributes.
  decryptUpdate       Test Decryption by update.
  signUpdate          Test Signature by update.
  changePinTest       Test card pin change.
  negativeTests       Perform Negative Tests.
  displayCertificates Output all the certificates on card.
  opensslVersion      Print system OpenSSL version.
  dontBlockTest       Run the non-blocking test.
  tokenInfoTest       Run the token information test.
  waitTest            Run the wait test.
)";

void takePin(TestManager& manager, char* argument) {
  manager.setPin(argument, 0);
  OPENSSL_cleanse(argument, std::string_view(argument).size());
}

}  // namespace

int runCommandLine(int argc, char** argv) {
  TestManager manager;
  if (argc <= 1) report << usage;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "-pw") {
      if (++i == argc) {
        report << "Password was not specified.\n";
        break;
      }
      takePin(manager, argv[i]);
    } else if (argument == "-d") {
      manager.debug = true;
    } else if (const TestEntry* entry = findTest(argument)) {
      if (entry->needsSetup) manager.setup();
      entry->run(manager);
    } else {
      report << "No test matches '" << argument << "'.\n" << usage;
      break;
    }
  }
  return 0;
}
