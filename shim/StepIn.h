// How a waiver goes about it: the module is first asked as the caller asked, and where the waiver
// does not help, the caller gets the module's first answer.
#pragma once

#include <algorithm>
#include <array>

#include "shim/Shim.h"

// What is no word on the question that was asked: a good answer, those that ask for a step of the
// caller's or tell of an operation that is not as he thinks, and errors of the session, the token,
// the host or the user. A device that fails now and then would pass, asked again.
inline constexpr std::array noRefusals{
    CKR_OK,
    CKR_BUFFER_TOO_SMALL,
    CKR_CANCEL,
    CKR_CRYPTOKI_NOT_INITIALIZED,
    CKR_DEVICE_ERROR,
    CKR_DEVICE_MEMORY,
    CKR_DEVICE_REMOVED,
    CKR_FIPS_SELF_TEST_FAILED,
    CKR_FUNCTION_CANCELED,
    CKR_FUNCTION_REJECTED,
    CKR_GENERAL_ERROR,
    CKR_HOST_MEMORY,
    CKR_OPERATION_ACTIVE,
    CKR_OPERATION_NOT_INITIALIZED,
    CKR_PIN_EXPIRED,
    CKR_SESSION_CLOSED,
    CKR_SESSION_HANDLE_INVALID,
    CKR_TOKEN_NOT_PRESENT,
    CKR_TOKEN_NOT_RECOGNIZED,
    CKR_USER_NOT_LOGGED_IN,
};

constexpr bool isRefusal(CK_RV result) {
  return std::ranges::count(noRefusals, result) == 0;
}

// Either: CKR_GENERAL_ERROR is by the standard one of the computer or the token, but modules say so
// too of a parameter that they do not take; CKR_FUNCTION_FAILED is all that is left to one that has
// no better word, but may pass when it is asked again.
constexpr bool isDoubtful(CK_RV result) {
  return result == CKR_GENERAL_ERROR || result == CKR_FUNCTION_FAILED;
}

// Asks again, in the way of `waiver`, after a refusal.
template <typename Again>
CK_RV stepIn(Waiver waiver, Again again) {
  shim.note('+', waiver);
  const CK_RV result = again();
  if (result != CKR_OK) shim.note('-', waiver);
  return result;
}
