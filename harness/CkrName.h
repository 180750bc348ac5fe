// Symbolic names of PKCS#11 return values.
#pragma once

#include <cstdint>
#include <string_view>

// The name of a return value, "UNKNOWN" for one outside the table. Vendor values have no range:
// only exactly 0x80000000 is CKR_VENDOR_DEFINED. The argument is the CK_RV's low 32 bits.
std::string_view ckrName(std::uint32_t returnValue);
