// Which return values each function has, as the standard lists them.
#pragma once

#include "harness/Pkcs11.h"
#include "probe/Functions.h"

namespace kestrel::probe {

// How a value stands to the list of a function.
enum class Listing {
  listed,     // or a vendor's, or one that the lists forget though the text asks for it
  unlisted,   // the lists have gaps, and the standard leaves a module some leeway there
  elsewhere,  // the standard has only another function return it
  undefined,  // no value of PKCS #11
};

// `version3` for a module that says it is one of 3.0 or later: it has some values more.
Listing listingOf(FunctionId function, CK_RV value, bool version3);

}  // namespace kestrel::probe
