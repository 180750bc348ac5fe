// Names of PKCS#11 values, for reading what the operator gives and writing what he reads.
#pragma once

#include <optional>
#include <string_view>

#include "harness/Pkcs11.h"

// The name that begins with `prefix` ("CKM_", "CKA_", "CKR_", "CKU_"), empty for an unknown value.
std::string_view nameOf(std::string_view prefix, CK_ULONG value);

// The value of a name such as "CKM_RSA_PKCS".
std::optional<CK_ULONG> valueOf(std::string_view name);
