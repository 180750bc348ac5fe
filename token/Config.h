// How the software token behaves, chosen from outside through the environment.
//
// KESTREL_TOKEN holds directives, one to a line or separated by ';'. Without any, the token is a
// conforming one: one slot of ID 1 with PIN 12345678 and one RSA-2048 key pair with certificate.
//
// clang-format off
// The module:
//   log=FILE                 append every call with its arguments to FILE
//   library=TEXT             library description
//   version=MAJOR.MINOR      library version
//   nolist                   C_GetFunctionList answers CKR_OK with a null list
//   null=C_X                 the list's entry for C_X is null
//   C_X=RV, C_X#N=RV         every call, or the N-th call, of C_X answers RV (0x... or decimal) and
//                            does nothing else; instead of RV a way to die: segv, abort, exit,
//                            hang, throw, overflow
//   C_X.out=V, C_X#N.out=V   C_X does its work, then every count or length that it returns is V
//   load=DEATH, unload=DEATH dies when it is loaded, or when it is unloaded or the process ends
//   random=SEED              answers, counts, lengths and texts drawn at random
//   event=ID@MS              a slot event for slot ID, MS milliseconds after the one before
//   eventfile=FILE           a slot event for slot 1 whenever FILE is there (it is taken away)
// A slot (the first "slot" replaces the default one, what follows belongs to it):
//   slot=ID  empty  flags=N  description=TEXT  manufacturer=TEXT
// Its token (\xNN stands for any byte of a text; text fields are padded with blanks):
//   label=TEXT  maker=TEXT  model=TEXT  pin=TEXT
//   tries=N                  tries left, of 3
//   setpin                   C_SetPIN works in a read-only session too
//   mechanisms=N,N,...       the list, in order
//   key=NAME[,nopublic][,nocert][,context|always][,cert=NAME]
//                            a key pair (the first one replaces the default; "none" leaves the
//                            token empty). context: wants a context-specific login once per
//                            operation; always: refuses even then. NAME: rsa2048a, rsa2048b,
//                            rsa4096
//   certificate=NAME[,LABEL] one more certificate; NAME also ec256, empty, garbage, or a number of
//                            bytes
//   handles=N                handle of the first object
//   refuse=NAME[,NAME]       refuses what some modules refuse: "length-query" (C_Sign without data,
//                            which ends the operation), "salt-length" (of all ones, for PSS)
//   spoil                    signatures are wrong
//   pad                      CKM_RSA_X_509 pads like PKCS#1 v1.5
//   hold                     plaintext of a multi-part decryption comes with C_DecryptFinal
// clang-format on
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "harness/Pkcs11.h"

// Directives by name, as they were given.
struct Settings {
  std::map<std::string, std::string> values;

  bool has(const std::string& name) const { return values.contains(name); }
  std::string text(const std::string& name, const std::string& fallback) const;  // unescaped
  CK_ULONG number(const std::string& name, CK_ULONG fallback) const;
};

struct Key {
  std::string name;
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
  bool loggedIn = false, contextLoggedIn = false;
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
