// What the operator told the shim, through the environment:
//
//   KESTREL_SHIM_MODULE=PATH       the module behind
//   KESTREL_SHIM_TOKEN=PATTERN     only the slots whose token has this label, or that match this
//                                  "pkcs11:" URI (RFC 7512), are listed
//   KESTREL_SHIM_MECHANISMS=LIST   only these mechanisms are listed: names, numbers, "signable",
//                                  "multipart" (see shim/SigningMechanisms.h), separated by commas
//   KESTREL_SHIM_WAIVE=LIST        deviations to step over, or "all" (see shim/Changes.h)
//   KESTREL_SHIM_USED=FILE         gets a line "+NAME" when a waiver steps in, and "-NAME" when
//   that
//                                  did not help; a use that the module did not survive stays
//   KESTREL_SHIM_TRACE=FILE        gets a line for each call (see shim/Trace.h)
//
// A variable that is not set changes nothing. One that is set and makes no sense fails
// C_Initialize. No message repeats a token's pattern: there may be a PIN in it.
#pragma once

#include <p11-kit/uri.h>

#include <bitset>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "harness/Pkcs11.h"
#include "shim/Waivers.h"

using WaiverSet = std::bitset<static_cast<std::size_t>(Waiver::count)>;

// The tokens to be shown.
class TokenPattern {
 public:
  explicit TokenPattern(const std::string& pattern);  // throws std::runtime_error

  bool matches(CK_SLOT_ID slot, const CK_TOKEN_INFO& info) const;

  // What only some patterns tell of: the module need not be asked for the others.
  bool tellsSlot() const;
  bool tellsLibrary() const;
  bool matches(const CK_SLOT_INFO& info) const;
  bool matches(const CK_INFO& info) const;

 private:
  struct UriDeleter {
    void operator()(P11KitUri* uri) const { p11_kit_uri_free(uri); }
  };
  std::string label_;
  std::unique_ptr<P11KitUri, UriDeleter> uri_;  // null: the label decides
};

// The mechanisms to be listed.
struct MechanismList {
  std::vector<CK_MECHANISM_TYPE> types;
  bool signable = false;   // and those that the module signs with and kestrel verifies
  bool multipart = false;  // and those of them that sign in parts
};

struct Settings {
  const char* module = nullptr;
  const char* used = nullptr;
  const char* trace = nullptr;
  std::optional<TokenPattern> token;
  std::optional<MechanismList> mechanisms;
  WaiverSet waived;

  bool waives(Waiver waiver) const { return waived[static_cast<std::size_t>(waiver)]; }
};

// Throws std::runtime_error with what is wrong.
Settings readSettings();
