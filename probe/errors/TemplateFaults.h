// What a template has to hold, and all that can be wrong with it.
#pragma once

#include <span>

#include "probe/Expected.h"
#include "probe/Outside.h"

namespace kestrel::probe {

// What is made of a template.
enum class From { creation, generation, rsaPair, ecPair, copy, change, unwrapping, derivation };

struct GoodAttribute {
  From from;
  CK_ATTRIBUTE_TYPE type;
  View value;
};

inline constexpr CK_ATTRIBUTE_TYPE nothing = CK_UNAVAILABLE_INFORMATION;
inline constexpr CK_ATTRIBUTE_TYPE unknownAttribute = 0x7ffffff7;

struct TemplateFault {
  From from;
  const char* name;
  CK_ATTRIBUTE_TYPE without;  // of the good attributes; `nothing` for none
  CK_ATTRIBUTE_TYPE with;     // at the end; `nothing` for none
  View value;
  Expected expected;
};

extern const std::span<const GoodAttribute> goodAttributes;
extern const std::span<const TemplateFault> templateFaults;

}  // namespace kestrel::probe
