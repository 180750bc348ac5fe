// Searching a token's objects and reading their attributes; every call is reported, and a failure
// ends the process with status 1.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "harness/Module.h"

namespace kestrel {

// The names under which the three calls of a search are reported.
struct SearchNames {
  const char* init = "C_FindObjectsInit";
  const char* find = "C_FindObjects";
  const char* end = "C_FindObjectsFinal";
};

// One search with a single C_FindObjects for as many objects as `handles` has room for. `count`
// gets how many were found.
void findObjects(CK_SESSION_HANDLE session, std::span<CK_ATTRIBUTE> attributes,
                 std::span<CK_OBJECT_HANDLE> handles, CK_ULONG& count,
                 const SearchNames& names = {});

// C_GetAttributeValue for `attributes`; the module may give the one at `checked` no more than
// `limit` bytes. Nobody is to rely on the lengths of the others.
void requireAttributes(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                       std::span<CK_ATTRIBUTE> attributes, std::size_t checked, CK_ULONG limit);

// Asks for the lengths of `attributes`, then for the value of the one at `wanted`, of at most
// `limit` bytes, and again for the lengths of the others.
std::vector<CK_BYTE> fetchAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                    std::span<CK_ATTRIBUTE> attributes, std::size_t wanted,
                                    CK_ULONG limit);

// The DER bytes of a certificate object, of at most `limit`. The calls ask for CKA_ID and CKA_LABEL
// too, whose lengths nobody uses: reports and modules' traces of all releases show them.
std::vector<CK_BYTE> readCertificate(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE certificate,
                                     CK_ULONG limit = maxAnswerLength);

}  // namespace kestrel
