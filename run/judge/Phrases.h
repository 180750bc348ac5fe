// What kestrel and the shim print, as far as kestrel-run reads it. Above each group stand the
// sources that print it: the test `phrases` looks for every piece in quotation marks there.
#pragma once

#include <array>
#include <string_view>

namespace kestrel::run::phrase {

using Phrase = std::string_view;

// harness/Report.cpp
inline constexpr Phrase passed = "() passed";
inline constexpr Phrase failed = "() failed : 0x";
inline constexpr Phrase failureStart = "!!! ";
inline constexpr Phrase valueStart = "!!! [";

// harness/TestManager.cpp
inline constexpr Phrase separator = "---------------------------------------";
inline constexpr Phrase version = "kestrel version: ";
inline constexpr Phrase teardown = "teardown test";
inline constexpr Phrase cannotOpen = "Failed to open PKCS#11 library ";
inline constexpr Phrase cannotFindList = "Failed to retrieve 'C_GetFunctionList': ";
inline constexpr Phrase noFunctionList = "C_GetFunctionList failed";

// tests/Listings.cpp, tests/OpensslVersion.cpp, cards/PrintInfo.cpp
inline constexpr auto facts = std::to_array<Phrase>({
    "Library Version: ",
    "-> LIBRARY VERSION: ",
    "OpenSSL version: ",
    "token label: ",
    "-> TOKEN LABEL: ",
});

// harness/Slots.cpp
inline constexpr Phrase noReader = "No Card Readers detected.";
inline constexpr Phrase noToken = "*********** TOKEN NOT PRESENT ************";

// harness/PinStore.cpp, harness/Pin.h
inline constexpr Phrase promptStart = "Enter PIN for the card in slot ";
inline constexpr Phrase promptEnd =
    " (max length = "
    "31"
    "): ";
inline constexpr Phrase contextLogin = "CKU_CONTEXT_SPECIFIC C_Login";

// harness/ProcessEnd.cpp, harness/Module.cpp, harness/CallInFlight.h
inline constexpr Phrase kestrelSays = "kestrel: ";
inline constexpr Phrase ofModule = "the module's ";
inline constexpr Phrase ofService = "the PC/SC service's ";
inline constexpr Phrase exceptionLeft = "an exception left ";
inline constexpr Phrase endedProcess = "() ended the process";

// tests/SlotEvents.cpp
inline constexpr Phrase poll = "Wait : ";
inline constexpr Phrase round = "C_GetSlotInfo : ";
inline constexpr std::array<Phrase, 2> loopEnds{"C_WaitForSlotEvent == ", "C_GetSlotInfo == "};

// tests/Discovery.cpp, tests/SlotEvents.cpp, tests/Signing.cpp, tests/SignUpdate.cpp,
// tests/Decryption.cpp, harness/PinStore.cpp
// The names of report lines that are no function's. A name stands before those that it ends with.
inline constexpr Phrase verification = "verifySig";
inline constexpr auto otherCalls = std::to_array<Phrase>({
    "CKU_CONTEXT_SPECIFIC C_Login",
    "C_WaitForSlotEvent(CKF_DONT_BLOCK) == CKR_OK",
    "C_WaitForSlotEvent blocking == CKR_OK",
    "C_WaitForSlot(CKF_DONT_BLOCK) == CKR_NO_EVENT",
    "Find objects init",
    "Find objects final",
    "Find objects",
    verification,
    "signByUpdate",
    "Error encrypting message",
});

// tests/Verification.cpp, harness/SignatureMechanisms.h
inline constexpr Phrase checkStart = "getting public key in openssl function";
inline constexpr std::array<Phrase, 2> checkedMechanism{"Performing ", "Signature mechanism is "};
inline constexpr Phrase verified = " signature verification passed";
inline constexpr Phrase wrongSignature = "       SIGNATURE VERIFICATION FAILED";

// tests/Signing.cpp
inline constexpr Phrase keyHandles = "--------- Private Key Handle: ";
inline constexpr Phrase signatureDump = "Data in buffer after signature operation: ";

// tests/Decryption.cpp, tests/DecryptData.cpp, tests/DecryptUpdate.cpp
inline constexpr Phrase message{"this is a test string\0", 22};
inline constexpr Phrase messageDump = "Decrypted Message:";
inline constexpr Phrase lastPartDump = "Decrypted data: ";

// tests/ChangePin.cpp, harness/Report.cpp
inline constexpr Phrase temporaryPin = "24682468";
inline constexpr Phrase pinChanged = "C_SetPIN() passed: changed pin";
inline constexpr Phrase pinIsBack = "C_Login() passed: logged in with original pin";
inline constexpr Phrase secondLogout = "C_Logout() passed: (2nd logout)";
inline constexpr Phrase pinChangeFailed =
    "PIN change failed"
    ": return value: ";

// tests/TokenInfo.cpp
inline constexpr Phrase pinFlags = "Flags: ";

// shim/Shim.cpp, shim/Changes.cpp
inline constexpr Phrase shimSays = "kestrel-shim: ";
inline constexpr Phrase shimCannotLoad =
    "kestrel-shim: "
    "cannot load ";
inline constexpr Phrase shimHasNoModule = "KESTREL_SHIM_MODULE is not set";
inline constexpr Phrase shimFindsNoToken = "kestrel-shim: no token matches";

// shim/Trace.cpp, shim/TracedCall.cpp, shim/Entries.h
inline constexpr Phrase tracedMechanism =
    "mechanism"
    "=";
inline constexpr Phrase tracedResult =
    ")"
    " = ";
inline constexpr Phrase tracedTimeEnd = " us>";

}  // namespace kestrel::run::phrase
