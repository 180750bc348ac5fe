// How the software token behaves, chosen from outside through the environment.
//
// KESTREL_TOKEN holds directives, one to a line or separated by ';'. Without any, the token is a
// conforming one: one slot of ID 1 with PIN 12345678 and one RSA-2048 key pair with certificate.
//
// The module:
//   log=FILE             append every call with its arguments to FILE
//   library=TEXT         library description;  version=MAJOR.MINOR its version
//   nolist               C_GetFunctionList answers CKR_OK with a null list
//   null=C_X             the list's entry for C_X is null
//   C_X=RV, C_X#N=RV     every call, or the N-th call, of C_X answers RV (0x... or decimal) and
//   does
//                        nothing else; instead of RV a way to die: segv, abort, hang, throw,
//                        overflow
//   C_X.out=V, C_X#N.out=V   C_X does its work, then every count or length that it returns is V
//   random=SEED          answers, counts, lengths and texts drawn at random
//   event=ID@MS          a slot event for slot ID, MS milliseconds after the one before
//   eventfile=FILE       a slot event for slot 1 whenever FILE is there (it is taken away)
// A slot (the first "slot" replaces the default one, what follows belongs to it):
//   slot=ID   empty   flags=N   description=TEXT   manufacturer=TEXT
// Its token (\xNN stands for any byte of a text; text fields are padded with blanks):
//   label=TEXT   maker=TEXT   model=TEXT   pin=TEXT   tries=N (left, of 3)   setpin (also
//   read-only) mechanisms=N,N,...   the list, in order
//   key=NAME[,nopublic][,nocert][,context|always][,cert=NAME]   a key pair (first one replaces the
//     default; "key=none" leaves the token empty); context: wants a context-specific login once per
//     operation, always: refuses even then. NAME: rsa2048a, rsa2048b, rsa4096
//   certificate=NAME[,LABEL]   one more certificate; NAME also ec256, empty, garbage, or a number
//   of
//     bytes;  handles=N   handle of the first object
//   spoil      signatures are wrong       pad     CKM_RSA_X_509 pads like PKCS#1 v1.5
//   hold       plaintext of a multi-part decryption comes with C_DecryptFinal
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "harness/Pkcs11.h"

struct Key {
  std::string name;
  bool wantsContext = false, refusesAlways = false;
};

struct Object {
  CK_OBJECT_CLASS type;
  std::string id, label, value;
  Key key;
};

struct Slot {
  CK_SLOT_ID id = 1;
  bool present = true, maySetPin = false, spoil = false, pad = false, hold = false;
  CK_FLAGS flags = CKF_REMOVABLE_DEVICE | CKF_HW_SLOT;
  std::string description = "kestrel software reader", manufacturer = "kestrel";
  std::string label = "kestrel token", maker = "kestrel", model = "software";
  std::string pin = "12345678";
  int tries = 3;
  bool loggedIn = false, contextLoggedIn = false;
  std::vector<CK_MECHANISM_TYPE> mechanisms{1, 6, 0x40, 0x41, 0x42, 9, 0xd, 0xe, 0x43, 0x44, 0x45};
  std::vector<Object> objects;
  CK_OBJECT_HANDLE firstHandle = 10;
  bool defaultObjects = true;
};

struct Event {
  CK_SLOT_ID slot;
  std::chrono::milliseconds delay;
};

struct Config {
  std::string log, library = "kestrel software token", eventFile, nullEntry;
  CK_VERSION version{1, 5};
  bool noList = false;
  std::vector<Slot> slots;
  std::vector<Event> events;
  std::map<std::string, std::string> overrides;  // "C_X", "C_X#N", "C_X.out", "C_X#N.out"
  std::optional<std::mt19937> random;
};

// Reads KESTREL_TOKEN. An unknown directive ends the process with a message: a test that misspells
// one must not pass.
Config readConfig();

// DER of a certificate by name (see "certificate=" above).
std::string certificateValue(const std::string& name);
// PEM of a private key by name.
const char* privateKeyPem(const std::string& name);
