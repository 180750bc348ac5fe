// The table of kestrel's tests: what the command line, its usage text, kestrel-run and the
// completions have to know of each. Has no code behind it, so that every program can include it.
#pragma once

#include <algorithm>
#include <array>
#include <string_view>

namespace kestrel {

// By what kestrel-run tells that a run with exit status 0 has tested something.
enum class Success {
  end,           // its regular end alone
  login,         // a token that was logged in to
  signatures,    // a signature that was verified
  plaintexts,    // the message, decrypted
  lastParts,     // the end of the message: the report of a decryption in parts has no more of it
  pinChange,     // the second logout
  pinFlags,      // the flags of a PIN
  certificates,  // a token that was looked at
};

struct Test {
  enum Trait : unsigned {
    named = 0,       // runs only when it is named
    inAll = 1 << 0,  // "all" runs it
    logsIn = 1 << 1,
    byOperator = 1 << 2,    // wants the operator's hands, and gets the terminal itself
    changesPin = 1 << 3,    // may leave another PIN behind when it does not come to its end
    patient = 1 << 4,       // the first interrupt waits for its end
    endless = 1 << 5,       // an error or the operator ends it
    signsInParts = 1 << 6,  // with the mechanisms that do
  };

  // No argument but the last has a default: every test says what it is.
  constexpr Test(std::string_view testName, std::string_view usageText, Success judgedBy,
                 unsigned itsTraits, std::string_view advertisedName = "")
      : name(testName),
        usage(usageText),
        advertised(advertisedName.empty() ? testName : advertisedName),
        success(judgedBy),
        traits(itsTraits) {}

  constexpr bool is(Trait trait) const { return (traits & trait) != 0; }

  std::string_view name, usage;
  std::string_view advertised;  // its name in the usage text
  Success success;
  unsigned traits;
};

// In the order of the usage text, which is the order of "all", too.
inline constexpr auto tests = [] {
  using enum Test::Trait;
  return std::to_array<Test>({
      {"printInfo", "Print Reader and Token info.", Success::end, inAll},
      {"libInfo", "Print PKCS#11 Lib info.", Success::end, inAll},
      {"listSlots", "Print Slot info.", Success::end, inAll},
      {"listTokens", "Print Token info.", Success::end, inAll},
      {"login", "Test logging into card.", Success::login, inAll | logsIn},
      {"signData", "Test all Signing Mechanisms.", Success::signatures, inAll | logsIn},
      {"decryptData", "Test Decryption.", Success::plaintexts, inAll | logsIn},
      {"findObjectsTest", "Test Objects and Attributes.", Success::login, inAll | logsIn},
      {"decryptUpdate", "Test Decryption by update.", Success::lastParts, inAll | logsIn},
      {"signUpdate", "Test Signature by update.", Success::signatures,
       inAll | logsIn | signsInParts},
      {"changePinTest", "Test card pin change.", Success::pinChange, logsIn | changesPin | patient},
      {"negativeTests", "Perform Negative Tests.", Success::end, inAll | logsIn},
      {"displayCertificates", "Output all the certificates on card.", Success::certificates, inAll},
      {"printOpensslVersion", "Print system OpenSSL version.", Success::end, named,
       "opensslVersion"},
      {"dontBlockTest", "Run the non-blocking test.", Success::end, byOperator},
      {"tokenInfoTest", "Run the token information test.", Success::pinFlags, logsIn | byOperator},
      {"waitTest", "Run the wait test.", Success::end, byOperator | endless},
  });
}();

// Null for an unknown name.
constexpr const Test* findTest(std::string_view name) {
  const auto* test = std::ranges::find(tests, name, &Test::name);
  return test == tests.end() ? nullptr : test;
}

}  // namespace kestrel
