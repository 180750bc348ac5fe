// The PKCS#11 v2.40 types and constants, from the one header that names all of them.
// It leaks lower-case macros (hash_alg, s_len, source_data, ...): never use those as identifiers.
#pragma once

#include <p11-kit/pkcs11.h>
