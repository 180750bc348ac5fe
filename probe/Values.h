// Values of PKCS #11 as text.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

#include "shim/Names.h"

namespace kestrel::probe {

// The name of a value that begins with `prefix` ("CKM_", "CKR_", "CKA_" ...), or, for an unknown
// one, the value in hexadecimal.
inline std::string valueText(std::string_view prefix, CK_ULONG value) {
  const std::string_view name = ::nameOf(prefix, value);
  return name.empty() ? fmt::format("{:#x}", value) : std::string(name);
}

}  // namespace kestrel::probe
