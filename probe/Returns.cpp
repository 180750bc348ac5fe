#include "probe/Returns.h"

#include <algorithm>
#include <array>
#include <span>

#include "probe/Pkcs11v3.h"
#include "shim/Names.h"

namespace kestrel::probe {

namespace {

using Groups = unsigned;

// Values that many lists share.
constexpr Groups universal = 1, initialized = 2, device = 4, session = 8, arguments = 16,
                 canceled = 32, begin = 64, key = 128, write = 256, attributes = 512, token = 1024,
                 ciphertext = 2048, signature = 4096, room = 8192, operation = 16384;
constexpr Groups usual = universal | initialized;
constexpr Groups inSession = usual | device | session;
constexpr Groups work = inSession | arguments | canceled;

struct Group {
  Groups bit;
  std::array<CK_RV, 5> values;  // CKR_OK, which only the first has, where there are fewer
};

constexpr Group groups[] = {
    {universal, {CKR_OK, CKR_GENERAL_ERROR, CKR_HOST_MEMORY, CKR_FUNCTION_FAILED}},
    {initialized, {CKR_CRYPTOKI_NOT_INITIALIZED}},
    {device, {CKR_DEVICE_ERROR, CKR_DEVICE_MEMORY, CKR_DEVICE_REMOVED}},
    {session, {CKR_SESSION_CLOSED, CKR_SESSION_HANDLE_INVALID}},
    {arguments, {CKR_ARGUMENTS_BAD}},
    {canceled, {CKR_FUNCTION_CANCELED}},
    {begin,
     {CKR_MECHANISM_INVALID, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_PIN_EXPIRED,
      CKR_USER_NOT_LOGGED_IN}},
    {key,
     {CKR_KEY_FUNCTION_NOT_PERMITTED, CKR_KEY_HANDLE_INVALID, CKR_KEY_SIZE_RANGE,
      CKR_KEY_TYPE_INCONSISTENT}},
    {write, {CKR_SESSION_READ_ONLY, CKR_TOKEN_WRITE_PROTECTED}},
    {attributes,
     {CKR_ATTRIBUTE_READ_ONLY, CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_VALUE_INVALID,
      CKR_TEMPLATE_INCONSISTENT}},
    {token, {CKR_SLOT_ID_INVALID, CKR_TOKEN_NOT_PRESENT, CKR_TOKEN_NOT_RECOGNIZED}},
    {ciphertext, {CKR_ENCRYPTED_DATA_INVALID, CKR_ENCRYPTED_DATA_LEN_RANGE}},
    {signature, {CKR_SIGNATURE_INVALID, CKR_SIGNATURE_LEN_RANGE}},
    {room, {CKR_BUFFER_TOO_SMALL}},
    {operation, {CKR_OPERATION_NOT_INITIALIZED}},
};

struct Row {
  FunctionId function;
  Groups groups;
  std::array<CK_RV, 9> others;
};

// As PKCS #11 2.40 has them, and for its additions 3.0.
constexpr std::array<Row, functionCount> rows{{
    // clang-format off
    {FunctionId::C_Initialize, universal | arguments, {CKR_CANT_LOCK, CKR_CRYPTOKI_ALREADY_INITIALIZED, CKR_NEED_TO_CREATE_THREADS}},
    {FunctionId::C_Finalize, usual | arguments, {}},
    {FunctionId::C_GetInfo, usual | arguments, {}},
    {FunctionId::C_GetFunctionList, universal | arguments, {}},
    {FunctionId::C_GetSlotList, usual | arguments | room, {}},
    {FunctionId::C_GetSlotInfo, usual | arguments, {CKR_DEVICE_ERROR, CKR_SLOT_ID_INVALID}},
    {FunctionId::C_GetTokenInfo, usual | device | token | arguments, {}},
    {FunctionId::C_GetMechanismList, usual | device | token | arguments | room, {}},
    {FunctionId::C_GetMechanismInfo, usual | device | token | arguments, {CKR_MECHANISM_INVALID}},
    {FunctionId::C_InitToken, usual | device | token | arguments | canceled, {CKR_PIN_INCORRECT, CKR_PIN_LOCKED, CKR_SESSION_EXISTS, CKR_TOKEN_WRITE_PROTECTED}},
    {FunctionId::C_InitPIN, work | write, {CKR_PIN_INVALID, CKR_PIN_LEN_RANGE, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_SetPIN, work | write, {CKR_PIN_INCORRECT, CKR_PIN_INVALID, CKR_PIN_LEN_RANGE, CKR_PIN_LOCKED}},
    {FunctionId::C_OpenSession, usual | device | token | arguments, {CKR_SESSION_COUNT, CKR_SESSION_PARALLEL_NOT_SUPPORTED, CKR_SESSION_READ_WRITE_SO_EXISTS, CKR_TOKEN_WRITE_PROTECTED}},
    {FunctionId::C_CloseSession, inSession, {}},
    {FunctionId::C_CloseAllSessions, usual | device, {CKR_SLOT_ID_INVALID, CKR_TOKEN_NOT_PRESENT}},
    {FunctionId::C_GetSessionInfo, inSession | arguments, {}},
    {FunctionId::C_GetOperationState, inSession | arguments | room | operation, {CKR_STATE_UNSAVEABLE}},
    {FunctionId::C_SetOperationState, inSession | arguments, {CKR_KEY_CHANGED, CKR_KEY_NEEDED, CKR_KEY_NOT_NEEDED, CKR_SAVED_STATE_INVALID}},
    {FunctionId::C_Login, work | operation, {CKR_PIN_INCORRECT, CKR_PIN_LOCKED, CKR_SESSION_READ_ONLY_EXISTS, CKR_USER_ALREADY_LOGGED_IN, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKR_USER_PIN_NOT_INITIALIZED, CKR_USER_TOO_MANY_TYPES, CKR_USER_TYPE_INVALID}},
    {FunctionId::C_Logout, inSession, {CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_CreateObject, inSession | write | attributes | arguments, {CKR_CURVE_NOT_SUPPORTED, CKR_DOMAIN_PARAMS_INVALID, CKR_PIN_EXPIRED, CKR_TEMPLATE_INCOMPLETE, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_CopyObject, inSession | write | attributes | arguments, {CKR_ACTION_PROHIBITED, CKR_OBJECT_HANDLE_INVALID, CKR_PIN_EXPIRED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_DestroyObject, inSession | write, {CKR_ACTION_PROHIBITED, CKR_OBJECT_HANDLE_INVALID, CKR_PIN_EXPIRED}},
    {FunctionId::C_GetObjectSize, inSession | arguments, {CKR_INFORMATION_SENSITIVE, CKR_OBJECT_HANDLE_INVALID}},
    {FunctionId::C_GetAttributeValue, inSession | arguments | room, {CKR_ATTRIBUTE_SENSITIVE, CKR_ATTRIBUTE_TYPE_INVALID, CKR_OBJECT_HANDLE_INVALID}},
    {FunctionId::C_SetAttributeValue, inSession | write | attributes | arguments, {CKR_ACTION_PROHIBITED, CKR_OBJECT_HANDLE_INVALID, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_FindObjectsInit, inSession | arguments, {CKR_ATTRIBUTE_TYPE_INVALID, CKR_ATTRIBUTE_VALUE_INVALID, CKR_OPERATION_ACTIVE, CKR_PIN_EXPIRED}},
    {FunctionId::C_FindObjects, inSession | arguments | operation, {}},
    {FunctionId::C_FindObjectsFinal, inSession | operation, {}},
    {FunctionId::C_EncryptInit, inSession | begin | key | canceled, {}},
    {FunctionId::C_Encrypt, work | room | operation, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE}},
    {FunctionId::C_EncryptUpdate, work | room | operation, {CKR_DATA_LEN_RANGE}},
    {FunctionId::C_EncryptFinal, work | room | operation, {CKR_DATA_LEN_RANGE}},
    {FunctionId::C_DecryptInit, work | begin | key, {}},
    {FunctionId::C_Decrypt, work | ciphertext | room | operation, {CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_DecryptUpdate, work | ciphertext | room | operation, {CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_DecryptFinal, work | ciphertext | room | operation, {CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_DigestInit, work | begin, {}},
    {FunctionId::C_Digest, work | room | operation, {}},
    {FunctionId::C_DigestUpdate, work | operation, {}},
    {FunctionId::C_DigestKey, inSession | canceled | operation, {CKR_KEY_HANDLE_INVALID, CKR_KEY_INDIGESTIBLE, CKR_KEY_SIZE_RANGE}},
    {FunctionId::C_DigestFinal, work | room | operation, {}},
    {FunctionId::C_SignInit, work | begin | key, {}},
    {FunctionId::C_Sign, work | room | operation, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE, CKR_FUNCTION_REJECTED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_SignUpdate, work | operation, {CKR_DATA_LEN_RANGE, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_SignFinal, work | room | operation, {CKR_DATA_LEN_RANGE, CKR_FUNCTION_REJECTED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_SignRecoverInit, work | begin | key, {}},
    {FunctionId::C_SignRecover, work | room | operation, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_VerifyInit, work | begin | key, {}},
    {FunctionId::C_Verify, work | signature | operation, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE}},
    {FunctionId::C_VerifyUpdate, work | operation, {CKR_DATA_LEN_RANGE}},
    {FunctionId::C_VerifyFinal, work | signature | operation, {CKR_DATA_LEN_RANGE}},
    {FunctionId::C_VerifyRecoverInit, work | begin | key, {}},
    {FunctionId::C_VerifyRecover, work | signature | room | operation, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE}},
    {FunctionId::C_DigestEncryptUpdate, work | room | operation, {CKR_DATA_LEN_RANGE}},
    {FunctionId::C_DecryptDigestUpdate, work | ciphertext | room | operation, {}},
    {FunctionId::C_SignEncryptUpdate, work | room | operation, {CKR_DATA_LEN_RANGE, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_DecryptVerifyUpdate, work | ciphertext | room | operation, {CKR_DATA_LEN_RANGE}},
    {FunctionId::C_GenerateKey, work | begin | write | attributes, {CKR_CURVE_NOT_SUPPORTED, CKR_TEMPLATE_INCOMPLETE}},
    {FunctionId::C_GenerateKeyPair, work | begin | write | attributes, {CKR_CURVE_NOT_SUPPORTED, CKR_DOMAIN_PARAMS_INVALID, CKR_TEMPLATE_INCOMPLETE}},
    {FunctionId::C_WrapKey, work | begin | room, {CKR_KEY_HANDLE_INVALID, CKR_KEY_NOT_WRAPPABLE, CKR_KEY_SIZE_RANGE, CKR_KEY_UNEXTRACTABLE, CKR_WRAPPING_KEY_HANDLE_INVALID, CKR_WRAPPING_KEY_SIZE_RANGE, CKR_WRAPPING_KEY_TYPE_INCONSISTENT}},
    {FunctionId::C_UnwrapKey, work | begin | write | attributes | room, {CKR_CURVE_NOT_SUPPORTED, CKR_DOMAIN_PARAMS_INVALID, CKR_TEMPLATE_INCOMPLETE, CKR_UNWRAPPING_KEY_HANDLE_INVALID, CKR_UNWRAPPING_KEY_SIZE_RANGE, CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT, CKR_WRAPPED_KEY_INVALID, CKR_WRAPPED_KEY_LEN_RANGE}},
    {FunctionId::C_DeriveKey, work | begin | write | attributes, {CKR_CURVE_NOT_SUPPORTED, CKR_DOMAIN_PARAMS_INVALID, CKR_KEY_HANDLE_INVALID, CKR_KEY_SIZE_RANGE, CKR_KEY_TYPE_INCONSISTENT, CKR_TEMPLATE_INCOMPLETE}},
    {FunctionId::C_SeedRandom, work, {CKR_OPERATION_ACTIVE, CKR_RANDOM_NO_RNG, CKR_RANDOM_SEED_NOT_SUPPORTED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_GenerateRandom, work, {CKR_OPERATION_ACTIVE, CKR_RANDOM_NO_RNG, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_GetFunctionStatus, session | initialized, {CKR_FUNCTION_FAILED, CKR_FUNCTION_NOT_PARALLEL, CKR_GENERAL_ERROR, CKR_HOST_MEMORY}},
    {FunctionId::C_CancelFunction, session | initialized, {CKR_FUNCTION_FAILED, CKR_FUNCTION_NOT_PARALLEL, CKR_GENERAL_ERROR, CKR_HOST_MEMORY}},
    {FunctionId::C_WaitForSlotEvent, usual | arguments, {CKR_NO_EVENT}},
    {FunctionId::C_GetInterfaceList, universal | arguments | room, {}},
    {FunctionId::C_GetInterface, universal | arguments | room, {}},
    {FunctionId::C_LoginUser, work | operation, {CKR_OPERATION_ACTIVE, CKR_PIN_INCORRECT, CKR_PIN_LOCKED, CKR_SESSION_READ_ONLY_EXISTS, CKR_USER_ALREADY_LOGGED_IN, CKR_USER_ANOTHER_ALREADY_LOGGED_IN, CKR_USER_PIN_NOT_INITIALIZED, CKR_USER_TOO_MANY_TYPES, CKR_USER_TYPE_INVALID}},
    {FunctionId::C_SessionCancel, usual | device, {CKR_OPERATION_ACTIVE, CKR_OPERATION_CANCEL_FAILED, CKR_TOKEN_NOT_PRESENT}},
    {FunctionId::C_MessageEncryptInit, inSession | begin | key | canceled, {CKR_OPERATION_CANCEL_FAILED}},
    {FunctionId::C_EncryptMessage, work | room | operation, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE}},
    {FunctionId::C_EncryptMessageBegin, inSession | canceled | operation, {CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_PIN_EXPIRED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_EncryptMessageNext, work | room | operation, {CKR_DATA_LEN_RANGE, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE}},
    {FunctionId::C_MessageEncryptFinal, work | operation, {CKR_OPERATION_ACTIVE}},
    {FunctionId::C_MessageDecryptInit, work | begin | key, {CKR_OPERATION_CANCEL_FAILED}},
    {FunctionId::C_DecryptMessage, work | ciphertext | room | operation, {CKR_AEAD_DECRYPT_FAILED, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_OPERATION_CANCEL_FAILED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_DecryptMessageBegin, work | operation, {CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_PIN_EXPIRED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_DecryptMessageNext, work | ciphertext | room | operation, {CKR_AEAD_DECRYPT_FAILED, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_MessageDecryptFinal, work | operation, {CKR_OPERATION_ACTIVE, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_MessageSignInit, work | begin | key, {}},
    {FunctionId::C_SignMessage, work | room | operation, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE, CKR_FUNCTION_REJECTED, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_TOKEN_RESOURCE_EXCEEDED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_SignMessageBegin, work | operation, {CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_PIN_EXPIRED, CKR_TOKEN_RESOURCE_EXCEEDED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_SignMessageNext, work | room | operation, {CKR_DATA_LEN_RANGE, CKR_FUNCTION_REJECTED, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_TOKEN_RESOURCE_EXCEEDED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_MessageSignFinal, work | operation, {CKR_FUNCTION_REJECTED, CKR_OPERATION_ACTIVE, CKR_TOKEN_RESOURCE_EXCEEDED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_MessageVerifyInit, work | begin | key, {}},
    {FunctionId::C_VerifyMessage, work | signature | operation, {CKR_DATA_INVALID, CKR_DATA_LEN_RANGE, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_TOKEN_RESOURCE_EXCEEDED}},
    {FunctionId::C_VerifyMessageBegin, work | operation, {CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_PIN_EXPIRED, CKR_USER_NOT_LOGGED_IN}},
    {FunctionId::C_VerifyMessageNext, work | signature | operation, {CKR_DATA_LEN_RANGE, CKR_MECHANISM_PARAM_INVALID, CKR_OPERATION_ACTIVE, CKR_TOKEN_RESOURCE_EXCEEDED}},
    {FunctionId::C_MessageVerifyFinal, work | operation, {CKR_DATA_LEN_RANGE, CKR_OPERATION_ACTIVE, CKR_TOKEN_RESOURCE_EXCEEDED}},
    // clang-format on
}};

static_assert(std::ranges::all_of(rows, [](const Row& row) {
  return &row - rows.data() == static_cast<std::ptrdiff_t>(row.function);
}));

// What every function with a session may also return from 3.0 on.
constexpr CK_RV laterValues[] = {CKR_OPERATION_ACTIVE, CKR_OPERATION_CANCEL_FAILED,
                                 CKR_TOKEN_RESOURCE_EXCEEDED, CKR_PENDING,
                                 CKR_OPERATION_NOT_VALIDATED};

// Values that are in no list, or in few, though the text has functions return them.
constexpr CK_RV forgotten[] = {CKR_FUNCTION_NOT_SUPPORTED, CKR_ARGUMENTS_BAD,
                               CKR_USER_NOT_LOGGED_IN, CKR_OPERATION_ACTIVE,
                               CKR_KEY_FUNCTION_NOT_PERMITTED};

// Values that the text has one function return, or a few, and no other.
struct Only {
  CK_RV value;
  FunctionId first, second = FunctionId::count, third = FunctionId::count;

  constexpr bool names(FunctionId function) const {
    return function == first || function == second || function == third;
  }
};

using enum FunctionId;
constexpr Only onlyFrom[] = {
    {CKR_ACTION_PROHIBITED, C_CopyObject, C_SetAttributeValue, C_DestroyObject},
    {CKR_CANT_LOCK, C_Initialize},
    {CKR_NEED_TO_CREATE_THREADS, C_Initialize},
    {CKR_CRYPTOKI_ALREADY_INITIALIZED, C_Initialize},
    {CKR_NO_EVENT, C_WaitForSlotEvent},
    {CKR_SESSION_EXISTS, C_InitToken},
    {CKR_SESSION_COUNT, C_OpenSession},
    {CKR_SESSION_PARALLEL_NOT_SUPPORTED, C_OpenSession},
    {CKR_USER_ALREADY_LOGGED_IN, C_Login, C_LoginUser},
    {CKR_USER_ANOTHER_ALREADY_LOGGED_IN, C_Login, C_LoginUser},
    {CKR_USER_PIN_NOT_INITIALIZED, C_Login, C_LoginUser},
    {CKR_UNWRAPPING_KEY_HANDLE_INVALID, C_UnwrapKey},
    {CKR_UNWRAPPING_KEY_SIZE_RANGE, C_UnwrapKey},
    {CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT, C_UnwrapKey},
    {CKR_WRAPPED_KEY_INVALID, C_UnwrapKey},
    {CKR_WRAPPED_KEY_LEN_RANGE, C_UnwrapKey},
    {CKR_WRAPPING_KEY_HANDLE_INVALID, C_WrapKey},
    {CKR_WRAPPING_KEY_SIZE_RANGE, C_WrapKey},
    {CKR_WRAPPING_KEY_TYPE_INCONSISTENT, C_WrapKey},
    {CKR_KEY_INDIGESTIBLE, C_DigestKey},
    {CKR_KEY_CHANGED, C_SetOperationState},
    {CKR_KEY_NEEDED, C_SetOperationState},
    {CKR_KEY_NOT_NEEDED, C_SetOperationState},
    {CKR_SAVED_STATE_INVALID, C_SetOperationState},
    {CKR_FUNCTION_NOT_PARALLEL, C_GetFunctionStatus, C_CancelFunction},
};

bool holds(std::span<const CK_RV> values, CK_RV value) {
  return std::ranges::count(values, value) != 0;
}

bool isListed(const Row& row, CK_RV value) {
  if (value != CKR_OK && holds(row.others, value)) return true;
  return std::ranges::any_of(groups, [&](const Group& group) {
    return (row.groups & group.bit) != 0 && (value != CKR_OK || group.bit == universal) &&
           holds(group.values, value);
  });
}

}  // namespace

Listing listingOf(FunctionId function, CK_RV value, bool version3) {
  const Row& row = rows[static_cast<std::size_t>(function)];
  if (isListed(row, value)) return Listing::listed;
  if (value >= CKR_VENDOR_DEFINED && value <= ~std::uint32_t{0}) return Listing::listed;
  if (version3 && functionRows[static_cast<std::size_t>(function)].takesSession &&
      (value == CKR_OK || holds(laterValues, value))) {
    return Listing::listed;
  }
  if (holds(forgotten, value)) return Listing::listed;
  const auto* const only = std::ranges::find(onlyFrom, value, &Only::value);
  if (only != std::end(onlyFrom) && !only->names(function)) {
    return Listing::elsewhere;
  }
  return ::nameOf("CKR_", value).empty() ? Listing::undefined : Listing::unlisted;
}

}  // namespace kestrel::probe
