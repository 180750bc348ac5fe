// The functions of a module's list, each with the words under which the trace shows its arguments.
//
// A pointer to bytes and the length behind it are one word, and so are a template and its count.
// The numbers "flags", "type" and "user" are shown as what they stand for. The last character of a
// word may be a mark:
//
//   *  an array that the module fills: shown as an address alone
//   !  a secret: of its bytes only the length is ever read
//   ?  a template whose values the module fills: shown behind the call
#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>
#include <type_traits>

#include "harness/Pkcs11.h"

template <typename... Parameters>
struct Entry {
  using Pointer = CK_RV (*)(Parameters...);

  constexpr Entry(const char* functionName, const char* argumentWords,
                  Pointer CK_FUNCTION_LIST::*listMember)
      : name(functionName), words(argumentWords), member(listMember) {}

  // Is each text that is given with its length marked as a secret?
  constexpr bool hidesTexts() const {
    constexpr std::array isText{std::is_same_v<Parameters, CK_UTF8CHAR*>...};
    constexpr std::array isLength{std::is_same_v<Parameters, CK_ULONG>...};
    std::ptrdiff_t texts = 0;
    for (std::size_t i = 1; i < isText.size(); ++i) texts += isText[i - 1] && isLength[i];
    return texts > 0 && std::ranges::count(std::string_view(words), '!') == texts;
  }

  const char* name;
  const char* words;
  Pointer CK_FUNCTION_LIST::*member;
};

// Every function but C_GetFunctionList, which is no call that goes through a list.
#define KESTREL_SHIM_ENTRIES(X)                                                                 \
  X(C_Initialize, "arguments")                                                                  \
  X(C_Finalize, "reserved")                                                                     \
  X(C_GetInfo, "info")                                                                          \
  X(C_GetSlotList, "tokenPresent list* count")                                                  \
  X(C_GetSlotInfo, "slot info")                                                                 \
  X(C_GetTokenInfo, "slot info")                                                                \
  X(C_GetMechanismList, "slot list* count")                                                     \
  X(C_GetMechanismInfo, "slot type info")                                                       \
  X(C_InitToken, "slot pin! label*")                                                            \
  X(C_InitPIN, "session pin!")                                                                  \
  X(C_SetPIN, "session oldPin! newPin!")                                                        \
  X(C_OpenSession, "slot flags application notify session")                                     \
  X(C_CloseSession, "session")                                                                  \
  X(C_CloseAllSessions, "slot")                                                                 \
  X(C_GetSessionInfo, "session info")                                                           \
  X(C_GetOperationState, "session state")                                                       \
  X(C_SetOperationState, "session state encryptionKey authenticationKey")                       \
  X(C_Login, "session user pin!")                                                               \
  X(C_Logout, "session")                                                                        \
  X(C_CreateObject, "session template object")                                                  \
  X(C_CopyObject, "session object template copy")                                               \
  X(C_DestroyObject, "session object")                                                          \
  X(C_GetObjectSize, "session object size")                                                     \
  X(C_GetAttributeValue, "session object attributes?")                                          \
  X(C_SetAttributeValue, "session object template")                                             \
  X(C_FindObjectsInit, "session template")                                                      \
  X(C_FindObjects, "session objects* room count")                                               \
  X(C_FindObjectsFinal, "session")                                                              \
  X(C_EncryptInit, "session mechanism key")                                                     \
  X(C_Encrypt, "session data output")                                                           \
  X(C_EncryptUpdate, "session part output")                                                     \
  X(C_EncryptFinal, "session output")                                                           \
  X(C_DecryptInit, "session mechanism key")                                                     \
  X(C_Decrypt, "session data output")                                                           \
  X(C_DecryptUpdate, "session part output")                                                     \
  X(C_DecryptFinal, "session output")                                                           \
  X(C_DigestInit, "session mechanism")                                                          \
  X(C_Digest, "session data digest")                                                            \
  X(C_DigestUpdate, "session part")                                                             \
  X(C_DigestKey, "session key")                                                                 \
  X(C_DigestFinal, "session digest")                                                            \
  X(C_SignInit, "session mechanism key")                                                        \
  X(C_Sign, "session data signature")                                                           \
  X(C_SignUpdate, "session part")                                                               \
  X(C_SignFinal, "session signature")                                                           \
  X(C_SignRecoverInit, "session mechanism key")                                                 \
  X(C_SignRecover, "session data signature")                                                    \
  X(C_VerifyInit, "session mechanism key")                                                      \
  X(C_Verify, "session data signature")                                                         \
  X(C_VerifyUpdate, "session part")                                                             \
  X(C_VerifyFinal, "session signature")                                                         \
  X(C_VerifyRecoverInit, "session mechanism key")                                               \
  X(C_VerifyRecover, "session signature data")                                                  \
  X(C_DigestEncryptUpdate, "session part output")                                               \
  X(C_DecryptDigestUpdate, "session part output")                                               \
  X(C_SignEncryptUpdate, "session part output")                                                 \
  X(C_DecryptVerifyUpdate, "session part output")                                               \
  X(C_GenerateKey, "session mechanism template key")                                            \
  X(C_GenerateKeyPair, "session mechanism publicTemplate privateTemplate publicKey privateKey") \
  X(C_WrapKey, "session mechanism wrappingKey key output")                                      \
  X(C_UnwrapKey, "session mechanism key wrapped template newKey")                               \
  X(C_DeriveKey, "session mechanism key template newKey")                                       \
  X(C_SeedRandom, "session seed* length")                                                       \
  X(C_GenerateRandom, "session random* length")                                                 \
  X(C_GetFunctionStatus, "session")                                                             \
  X(C_CancelFunction, "session")                                                                \
  X(C_WaitForSlotEvent, "flags slot reserved")

namespace entries {

#define KESTREL_SHIM_ENTRY(function, words) \
  inline constexpr Entry function(#function, words, &CK_FUNCTION_LIST::function);
KESTREL_SHIM_ENTRIES(KESTREL_SHIM_ENTRY)
#undef KESTREL_SHIM_ENTRY

#define KESTREL_SHIM_NAME(function, words) #function,
inline constexpr const char* names[] = {KESTREL_SHIM_ENTRIES(KESTREL_SHIM_NAME)};
#undef KESTREL_SHIM_NAME

// The version and C_GetFunctionList are the rest.
static_assert(sizeof(CK_FUNCTION_LIST) == (std::size(names) + 2) * sizeof(void*),
              "an entry is missing");

static_assert(C_InitToken.hidesTexts() && C_InitPIN.hidesTexts() && C_SetPIN.hidesTexts() &&
                  C_Login.hidesTexts(),
              "a PIN would be traced");

}  // namespace entries
