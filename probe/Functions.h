// The functions of PKCS #11: the 68 of the 2.x list, and the 24 that the 3.0 list has behind them.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

// In the order of CK_FUNCTION_LIST. `session` and `plain` tell those that take a session handle as
// their first argument from those that do not.
#define KESTREL_PKCS11_FUNCTIONS(plain, session)                                                   \
  plain(C_Initialize) plain(C_Finalize) plain(C_GetInfo) plain(C_GetFunctionList) plain(           \
      C_GetSlotList) plain(C_GetSlotInfo) plain(C_GetTokenInfo) plain(C_GetMechanismList)          \
      plain(C_GetMechanismInfo) plain(C_InitToken) session(C_InitPIN) session(C_SetPIN) plain(     \
          C_OpenSession) session(C_CloseSession) plain(C_CloseAllSessions)                         \
          session(C_GetSessionInfo) session(C_GetOperationState) session(                          \
              C_SetOperationState) session(C_Login) session(C_Logout) session(C_CreateObject)      \
              session(C_CopyObject) session(C_DestroyObject) session(C_GetObjectSize) session(     \
                  C_GetAttributeValue) session(C_SetAttributeValue) session(C_FindObjectsInit)     \
                  session(C_FindObjects) session(C_FindObjectsFinal) session(C_EncryptInit)        \
                      session(C_Encrypt) session(C_EncryptUpdate) session(C_EncryptFinal) session( \
                          C_DecryptInit) session(C_Decrypt) session(C_DecryptUpdate)               \
                          session(C_DecryptFinal) session(C_DigestInit) session(C_Digest) session( \
                              C_DigestUpdate) session(C_DigestKey) session(C_DigestFinal)          \
                              session(C_SignInit) session(C_Sign) session(C_SignUpdate) session(   \
                                  C_SignFinal) session(C_SignRecoverInit) session(C_SignRecover)   \
                                  session(C_VerifyInit) session(C_Verify) session(C_VerifyUpdate)  \
                                      session(C_VerifyFinal) session(C_VerifyRecoverInit) session( \
                                          C_VerifyRecover) session(C_DigestEncryptUpdate)          \
                                          session(C_DecryptDigestUpdate) session(                  \
                                              C_SignEncryptUpdate) session(C_DecryptVerifyUpdate)  \
                                              session(C_GenerateKey) session(C_GenerateKeyPair)    \
                                                  session(C_WrapKey) session(C_UnwrapKey)          \
                                                      session(C_DeriveKey) session(C_SeedRandom)   \
                                                          session(C_GenerateRandom)                \
                                                              session(C_GetFunctionStatus)         \
                                                                  session(C_CancelFunction)        \
                                                                      plain(C_WaitForSlotEvent)

// In the order in which CK_FUNCTION_LIST_3_0 has them behind the others.
#define KESTREL_PKCS11_FUNCTIONS_3_0(plain, session)                                             \
  plain(C_GetInterfaceList) plain(C_GetInterface) session(C_LoginUser) session(C_SessionCancel)  \
      session(C_MessageEncryptInit) session(C_EncryptMessage) session(C_EncryptMessageBegin)     \
          session(C_EncryptMessageNext) session(C_MessageEncryptFinal)                           \
              session(C_MessageDecryptInit) session(C_DecryptMessage)                            \
                  session(C_DecryptMessageBegin) session(C_DecryptMessageNext)                   \
                      session(C_MessageDecryptFinal) session(C_MessageSignInit)                  \
                          session(C_SignMessage) session(C_SignMessageBegin)                     \
                              session(C_SignMessageNext) session(C_MessageSignFinal)             \
                                  session(C_MessageVerifyInit) session(C_VerifyMessage)          \
                                      session(C_VerifyMessageBegin) session(C_VerifyMessageNext) \
                                          session(C_MessageVerifyFinal)

namespace kestrel::probe {

// A number for each, in that order.
enum class FunctionId : std::size_t {
#define KESTREL_ID(name) name,
  KESTREL_PKCS11_FUNCTIONS(KESTREL_ID, KESTREL_ID)
      KESTREL_PKCS11_FUNCTIONS_3_0(KESTREL_ID, KESTREL_ID)
#undef KESTREL_ID
          count,
};

inline constexpr std::size_t functionCount = static_cast<std::size_t>(FunctionId::count);
inline constexpr std::size_t functionCount2 =
    static_cast<std::size_t>(FunctionId::C_GetInterfaceList);

struct FunctionRow {
  const char* name;
  bool takesSession;
};

inline constexpr std::array<FunctionRow, functionCount> functionRows{{
#define KESTREL_PLAIN(name) {#name, false},
#define KESTREL_SESSION(name) {#name, true},
    KESTREL_PKCS11_FUNCTIONS(KESTREL_PLAIN, KESTREL_SESSION)
        KESTREL_PKCS11_FUNCTIONS_3_0(KESTREL_PLAIN, KESTREL_SESSION)
#undef KESTREL_PLAIN
#undef KESTREL_SESSION
}};

constexpr const char* nameOf(FunctionId id) {
  return functionRows[static_cast<std::size_t>(id)].name;
}

constexpr std::optional<FunctionId> findFunction(std::string_view name) {
  for (std::size_t i = 0; i < functionCount; ++i) {
    if (functionRows[i].name == name) return static_cast<FunctionId>(i);
  }
  return std::nullopt;
}

}  // namespace kestrel::probe
