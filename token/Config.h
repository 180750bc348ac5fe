// How the software token behaves, chosen from outside through the environment.
//
// KESTREL_TOKEN holds directives, which doc/kestrel-token.7 lists. Without any, the token is a
// conforming one: one slot of ID 1 with PIN 12345678 and one RSA-2048 key pair with certificate.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "harness/Pkcs11.h"

namespace kestrel::token {

// Of a PIN, in bytes.
inline constexpr CK_ULONG minPinLength = 1;
inline constexpr CK_ULONG maxPinLength = 255;

// Directives by name, as they were given.
struct Settings {
  std::map<std::string, std::string> values;

  bool has(const std::string& name) const { return values.contains(name); }
  std::string text(const std::string& name, const std::string& fallback) const;  // unescaped
  CK_ULONG number(const std::string& name, CK_ULONG fallback) const;
};

struct Key {
  std::string name = {};  // of a credential; none for a certificate without a key
  bool wantsContext = false, refusesAlways = false;
};

struct Object {
  CK_OBJECT_CLASS type;
  std::string id, label, value;
  Key key = {};
};

struct Slot {
  CK_SLOT_ID id = 1;
  Settings settings = {};
  std::vector<Object> objects = {};
  std::string pin = "12345678";
  int tries = 3;
  bool loggedIn = false;
  CK_ULONG logouts = 0;  // since there was a session
};

struct Config {
  Settings settings = {};
  std::vector<Slot> slots = {};
  std::vector<std::pair<CK_SLOT_ID, std::chrono::milliseconds>> events = {};
  std::optional<std::mt19937> random = {};
};

// Reads KESTREL_TOKEN. An unknown directive ends the process with a message: a test that misspells
// one must not pass.
Config readConfig();

// PEM text that holds the private key of a name.
const char* privateKeyPem(const std::string& name);

// DER of a certificate by name, which is one of a credential or as "certificate=" has it.
std::string certificateValue(const std::string& name);

}  // namespace kestrel::token
