// A wrapping, an unwrapping and a derivation that work: what is done wrong around them begins with
// them.
#pragma once

#include "probe/Kits.h"
#include "probe/Templates.h"

namespace kestrel::probe {

class Carrier {
 public:
  // Finds what the token has for it, and sees it work. The check is not applicable without.
  static Carrier wrapping(Bench& bench);
  static Carrier derivation(Bench& bench);

  CK_MECHANISM* mechanism = nullptr;
  CK_OBJECT_HANDLE base = CK_INVALID_HANDLE;  // the key that wraps and unwraps, or is derived from
  CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;   // that is wrapped
  Bytes wrapped;

  CK_RV wrap(Bench& bench) const;
  CK_RV unwrap(Bench& bench, const Template& attributes) const;
  CK_RV derive(Bench& bench, const Template& attributes) const;

  // What the key that comes of it is to be: an AES key of 16 bytes.
  static Template result(Bench& bench);
};

}  // namespace kestrel::probe
