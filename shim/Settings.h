// What the operator told the shim, through the environment:
//
//   KESTREL_SHIM_MODULE=PATH       the module behind
//   KESTREL_SHIM_TOKEN=PATTERN     only the slots whose token has this label, or that match this
//                                  "pkcs11:" URI (RFC 7512), are listed
//   KESTREL_SHIM_MECHANISMS=LIST   only these mechanisms are listed: names, numbers, "signable",
//                                  "multipart" (see shim/SigningMechanisms.h), separated by commas;
//                                  one with a '-' before it is left out
//   KESTREL_SHIM_INIT_ARGS=TEXT    the library parameters, where C_Initialize is called without any
//   KESTREL_SHIM_WAIVE=LIST        deviations to step over, or "all" (see shim/Changes.h)
//   KESTREL_SHIM_USED=FILE         gets a line "+NAME" when a waiver steps in, and "-NAME" when
//   that
//                                  did not help; a use that the module did not survive stays
//   KESTREL_SHIM_TRACE=FILE        gets a line for each call (see shim/Trace.h)
//
// A variable that is not set changes nothing. One that is set and makes no sense fails
// C_Initialize. No message repeats a token's pattern: there may be a PIN in it.
#pragma once

#include <bitset>
#include <optional>
#include <string>
#include <vector>

#include "harness/Pkcs11.h"
#include "shim/TokenPattern.h"
#include "shim/Waivers.h"

using WaiverSet = std::bitset<static_cast<std::size_t>(Waiver::count)>;

// The mechanisms to be listed.
struct MechanismList {
  std::vector<CK_MECHANISM_TYPE> types;
  std::vector<CK_MECHANISM_TYPE> without;  // of all that, or of all that the module lists
  bool signable = false;   // and those that the module signs with and kestrel verifies
  bool multipart = false;  // and those of them that sign in parts
};

struct Settings {
  const char* module = nullptr;
  const char* used = nullptr;
  const char* trace = nullptr;
  const char* initArguments = nullptr;
  std::optional<TokenPattern> token;
  std::optional<MechanismList> mechanisms;
  WaiverSet waived;

  bool waives(Waiver waiver) const { return waived[static_cast<std::size_t>(waiver)]; }
};

// Throws std::runtime_error with what is wrong.
Settings readSettings();
