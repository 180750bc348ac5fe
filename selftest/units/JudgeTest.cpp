// What kestrel-run makes of the end of a kestrel process: from what was printed, and how it ended,
// to the outcome; and what the shim's files add.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "run/judge/Findings.h"
#include "run/judge/Judge.h"
#include "run/judge/Login.h"
#include "run/judge/Transcript.h"

namespace kestrel::run {
namespace {

const std::string separator = std::string(39, '-') + "\n";
const std::string end = separator + "teardown test\nC_Finalize() passed\n";
const std::string login = "C_OpenSession() passed\nC_Login() passed\n";

constexpr int exited(int status) {
  return status << 8;
}

std::string failed(const std::string& call, const std::string& value, const std::string& name) {
  return "!!! " + call + "() failed : " + value + "!!! [" + name + "]\n";
}

// The lines of a check of a signature; `result` is what stands between its first and its last.
std::string check(const std::string& result) {
  return "C_Sign() passed\n\ngetting public key in openssl function\n" + result +
         "verifySig() passed\n";
}

const std::string verified = check("Performing CKM_A ...\nCKM_A signature verification passed\n");
const std::string unchecked = check("Signature mechanism is RSA_PKCS\n");

std::string dump(const std::string& call, const std::string& heading, const std::string& lines) {
  return call + "() passed\n\n" + heading + "\n" + lines + "\n";
}

const std::string firstLine = "00000000: 74 68 69 73 20 69 73 20 61 20 74 65 73 74 20 73   x\n";
const std::string lastLine = "00000010: 74 72 69 6e 67 00                                 tring.\n";

struct Row {
  std::string test, report, errors;
  int status;
  std::string expected;
  Ended::By by = Ended::By::itself;
  double silence = 2;
};

Run runOf(const Row& row) {
  Ended ended;
  ended.by = row.by;
  ended.status = row.status;
  ended.silence = row.silence;
  ended.report = row.report;
  ended.errors = row.errors;
  ended.reason = "no PIN";
  return judge(*findTest(row.test), ended, 2.5);
}

// "OUTCOME: REASON; CALL VALUE NAME", as far as there is one.
std::string shown(const Run& run) {
  return fmt::format("{}{}{}{}{}{}", outcomeName(run.outcome), run.reason.empty() ? "" : ": ",
                     run.reason, run.call.empty() ? "" : "; ", run.call,
                     run.value ? fmt::format(" {:#x} {}", *run.value, run.valueName) : "");
}

void expectOutcomes(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(shown(runOf(row)), row.expected) << row.test << "\n" << row.report << row.errors;
  }
}

TEST(Judge, KnowsWhatASuccessIsWorth) {
  const std::string whole = "Decrypted Message:", parts = "Decrypted data: ";
  const std::string open = "C_OpenSession() passed\nC_SetPIN() passed: changed pin\n";
  const std::string done = "C_Logout() passed: (2nd logout)\n";
  const auto refused = [](int value) {
    return fmt::format("PIN change failed: return value: {}\n", value);
  };
  expectOutcomes({
      {"printInfo", end, "", 0, "passed"},
      {"printInfo", "C_Finalize() passed\nteardown test\n", "", 0,
       "failed: the process ended in the middle of its report"},
      {"printInfo", "teardown test\nanything C_Finalize() passed\nmore\n", "", 0, "passed"},
      {"login", login + end, "", 0, "passed"},
      {"login", "Enter PIN for the card in slot 0 (max length = 31): C_Login() passed\n" + end, "",
       0, "passed"},
      {"findObjectsTest", "C_OpenSession() passed\n" + end, "", 0, "nothing tested: no token"},
      {"signData", end, "", 0, "nothing tested: no token"},
      {"signData", login + end, "", 0, "nothing tested: no key"},
      {"signUpdate", login + verified + unchecked + verified + end, "", 0,
       "passed: 2 verified, 1 not checked"},
      {"signData", login + verified + end, "", 0, "passed: 1 verified"},
      {"signData", login + unchecked + end, "", 0, "nothing tested: 0 verified, 1 not checked"},
      // Whatever a module writes between the lines of a check: they stand together.
      {"signData",
       login + check("Performing CKM_A ...\nCKM_A signature verification passed\n\n") + end, "", 0,
       "nothing tested: no key"},
      {"decryptData", login + dump("C_Decrypt", whole, firstLine + lastLine) + end, "", 0,
       "passed: 1 decrypted"},
      {"decryptData", login + dump("C_Decrypt", whole, lastLine) + end, "", 0,
       "failed: wrong plaintext"},
      {"decryptData", login + end, "", 0, "nothing tested: no key"},
      {"decryptData", end, "", 0, "nothing tested: no token"},
      {"decryptData", login + whole + "\n" + lastLine + end, "", 0, "nothing tested: no key"},
      {"decryptUpdate", login + dump("C_DecryptFinal", parts, lastLine) + end, "", 0,
       "passed: 1 decrypted"},
      {"decryptUpdate",
       login + dump("C_DecryptFinal", parts, lastLine) +
           dump("C_DecryptFinal", parts, "no bytes\n") + end,
       "", 0, "passed: 2 decrypted"},
      {"decryptUpdate", login + dump("C_DecryptFinal", parts, firstLine) + end, "", 0,
       "failed: wrong plaintext"},
      {"changePinTest", end, "", 0, "nothing tested: no token"},
      {"changePinTest", open + done + end, "", 0, "passed"},
      {"changePinTest", "C_OpenSession() passed\n" + refused(181) + end, "", 0,
       "failed: PIN change failed, C_SetPIN CKR_SESSION_READ_ONLY; C_SetPIN 0xb5 "
       "CKR_SESSION_READ_ONLY"},
      {"changePinTest", open + refused(160) + end, "", 0,
       "failed: PIN change failed, C_Login CKR_PIN_INCORRECT; C_Login 0xa0 CKR_PIN_INCORRECT"},
      {"changePinTest", open + "C_Login() passed: logged in with new pin\n" + refused(5) + end, "",
       0, "failed: PIN change failed, C_Logout CKR_GENERAL_ERROR; C_Logout 0x5 CKR_GENERAL_ERROR"},
      {"changePinTest",
       open + "C_Login() passed: logged in with new pin\nC_Logout() passed\n" + refused(5) + end,
       "", 0,
       "failed: PIN change failed, C_SetPIN CKR_GENERAL_ERROR; C_SetPIN 0x5 CKR_GENERAL_ERROR"},
      // Of the second token; and a text of the first's that is none of kestrel's.
      {"changePinTest", open + done + "C_OpenSession() passed\n" + refused(5) + end, "", 0,
       "failed: PIN change failed, C_SetPIN CKR_GENERAL_ERROR; C_SetPIN 0x5 CKR_GENERAL_ERROR"},
      {"changePinTest", open + refused(5) + done + end, "", 0, "passed"},
      {"tokenInfoTest", "Flags: x\n" + end, "", 0, "passed"},
      {"tokenInfoTest", end, "", 0, "nothing tested: no reader"},
  });
  EXPECT_FALSE(runOf({"changePinTest", open + refused(5) + end, "", 0, ""}).calls.back().passed);
}

TEST(Judge, ExplainsAFailure) {
  const std::string load = "Failed to open PKCS#11 library ./libnorvalepk11.so: ";
  const std::string noToken = "*********** TOKEN NOT PRESENT ************\n\n#\n";
  const std::string wrong = "getting public key in openssl function\nPerforming CKM_A ...\n";
  expectOutcomes({
      {"login", login + failed("C_Sign", "0x70", "CKR_MECHANISM_INVALID"), "", exited(1),
       "failed; C_Sign 0x70 CKR_MECHANISM_INVALID"},
      {"login", failed("C_Sign", "0x80000001", "UNKNOWN"), "", exited(1),
       "failed: C_Sign 0x80000001; C_Sign 0x80000001 UNKNOWN"},
      {"login", "x" + failed("Find objects", "0x5", "y"), "", exited(1),
       "failed; Find objects 0x5 CKR_GENERAL_ERROR"},
      // The last line counts, and above it the last that is a failure.
      {"login", failed("C_Login", "0xa0", "x") + failed("C_Sign", "0x5", "x") + "more\n", "",
       exited(1), "failed; C_Sign 0x5 CKR_GENERAL_ERROR"},
      {"login", failed("C_Login", "0xa0", "x") + "No Card Readers detected.\n", "", exited(1),
       "failed: no reader"},
      {"login", "!!! C_X() failed : 0x1g!!! [y]\n!!! C_X() failed : 0x1!!! y\n", "", exited(1),
       "failed: the process ended with status 1"},
      {"login", "", "", exited(255), "failed: the process ended with status 255"},
      {"printInfo", "-> x " + noToken, "", exited(1), "failed: no token"},
      {"printInfo", noToken, "kestrel-shim: no token matches 'x'\n", exited(1),
       "failed: no such token"},
      {"printInfo", noToken + "a line more\n", "", exited(1), "failed: no token"},
      {"printInfo", noToken + "two lines\nmore\n", "", exited(1),
       "failed: the process ended with status 1"},
      {"signData", wrong + "*\n       SIGNATURE VERIFICATION FAILED\n*\n", "", exited(1),
       "failed: wrong signature, CKM_A"},
      {"signData", wrong + failed("verifySig", "0x6", "x"), "", exited(1),
       "failed: wrong signature, CKM_A; verifySig 0x6 CKR_FUNCTION_FAILED"},
      {"login", separator, "x\n" + load + "file too short\n", exited(1),
       "could not load: file too short"},
      {"login", separator, "Failed to retrieve 'C_GetFunctionList': no symbol\n", exited(1),
       "could not load: no symbol"},
      {"login", separator + "x\n", load + "x\n", exited(1),
       "failed: the process ended with status 1"},
      {"login", failed("C_Initialize", "0x5", "x"), "kestrel-shim: cannot load x.so: gone\n",
       exited(1), "could not load: x.so: gone"},
      {"login", failed("C_Login", "0x5", "x"), "kestrel-shim: cannot load x.so: gone\n", exited(1),
       "failed; C_Login 0x5 CKR_GENERAL_ERROR"},
      {"login", failed("C_Finalize", "0x6", "x"), "C_GetFunctionList failed\n", exited(1),
       "failed: C_GetFunctionList failed, then C_Finalize; C_Finalize 0x6 CKR_FUNCTION_FAILED"},
      {"login", failed("C_Login", "0xa0", "x"),
       "kestrel: the module's C_Logout() ended the process\n", exited(1),
       "failed: C_Logout ended the process; C_Logout"},
      {"login", "", "kestrel: an exception left the module's C_Sign(): words\n", exited(1),
       "failed: an exception left C_Sign(): words; C_Sign"},
      {"login", "", "kestrel: cannot write\n", exited(1), "failed: cannot write"},
      {"login", "", "kestrel: cannot write\nmodule: x\n", exited(1),
       "failed: the process ended with status 1"},
      {"waitTest", "Wait : 1\nC_GetSlotInfo == 5\n", "", exited(1),
       "failed; C_GetSlotInfo 0x5 CKR_GENERAL_ERROR"},
      {"login", "C_GetSlotInfo == 5\n", "", exited(1), "failed: the process ended with status 1"},
      {"waitTest", "C_WaitForSlotEvent == 5x\n", "", exited(1),
       "failed: the process ended with status 1"},
  });
}

TEST(Judge, TellsHowAProcessWasEnded) {
  using enum Ended::By;
  const std::string named = "kestrel: SIGSEGV in the module's C_Sign()\n";
  const std::string service = "kestrel: SIGINT in the PC/SC service's SCardConnect()\n";
  const std::string rounds = "C_GetSlotInfo : 6\nWait : 2\nC_GetSlotInfo : 7\n";
  expectOutcomes({
      {"login", "", "x\n" + named + "y\n", SIGSEGV, "crashed: SIGSEGV in C_Sign; C_Sign"},
      {"login", end, "", SIGABRT, "crashed: SIGABRT outside any call into the module"},
      {"login", "", "", 64, "crashed: SIG64 outside any call into the module"},
      {"login", "", "kestrel: the module's C_Sign\n", SIGKILL,
       "crashed: SIGKILL in an unknown call"},
      {"login", "", named, SIGINT, "hung: in C_Sign, ended after 2.5 s; C_Sign", timeLimit},
      {"printInfo", "", service, SIGINT, "hung: in SCardConnect, ended after 2.5 s; SCardConnect",
       timeLimit},
      {"login", login, "", exited(0), "hung: outside any call into the module, ended after 2.5 s",
       timeLimit},
      {"login", login + end, "", exited(0), "passed", timeLimit},
      {"login", "", named, SIGINT, "not run: interrupted in C_Sign; C_Sign", interrupt},
      {"login", "", named, SIGINT, "failed: more output than 16 MiB in C_Sign; C_Sign",
       reportLimit},
      {"login", "", named, SIGINT, "not run: no PIN; C_Sign", lackOfPin},
      {"dontBlockTest", rounds, named, SIGINT, "not run: ended by the operator; C_Sign"},
      {"dontBlockTest", "", named, SIGTERM, "crashed: SIGTERM in C_Sign; C_Sign"},
      {"waitTest", rounds, named, SIGINT, "passed: 7 rounds"},
      {"waitTest", rounds, named, SIGINT, "passed: 7 rounds", timeLimit},
      {"waitTest", rounds, named, SIGINT, "not run: ended by the operator; C_Sign", itself, 2.1},
      {"waitTest", rounds, named, SIGKILL, "hung: in C_Sign, ended after 2.5 s; C_Sign", timeLimit,
       9},
      {"waitTest", "Wait : 1\n", "", SIGINT, "not run: ended by the operator"},
      {"waitTest", "C_GetSlotInfo : 1\n", "", SIGINT, "not run: ended by the operator"},
  });
}

// What kestrel says beside its report: as much as the report bears out.
TEST(Judge, HearsWhatIsSaidBesideTheReport) {
  const std::string note = "signature not checked\n";
  const std::string wrong = failed("C_GetSlotList", "0x0", "CKR_OK");
  const struct {
    Row row;
    std::string notes, expected;
  } rows[] = {
      {{"signData", login + verified + verified + end, "", 0, ""}, "", "passed: 2 verified"},
      {{"signData", login + verified + verified + end, "", 0, ""},
       note,
       "passed: 1 verified, 1 not checked"},
      {{"signData", login + verified + unchecked + end, "", 0, ""},
       note,
       "nothing tested: 0 verified, 2 not checked"},
      {{"signData", login + verified + end, "", 0, ""},
       note + note + note,
       "nothing tested: 0 verified, 1 not checked"},
      {{"signData", login + verified + end, "", 0, ""},
       "signature\nx" + note,
       "passed: 1 verified"},
      {{"negativeTests", wrong, "", exited(1), ""},
       "expected CKR_ARGUMENTS_BAD\n",
       "failed: C_GetSlotList CKR_OK, expected CKR_ARGUMENTS_BAD; C_GetSlotList 0x0 CKR_OK"},
      {{"negativeTests", wrong, "", exited(1), ""},
       "function C_CancelFunction\nexpected CKR_FUNCTION_NOT_SUPPORTED\n",
       "failed: C_CancelFunction CKR_OK, expected CKR_FUNCTION_NOT_SUPPORTED; C_CancelFunction 0x0 "
       "CKR_OK"},
      {{"negativeTests", "", "", exited(7), ""},
       "expected CKR_OK\n",
       "failed: the process ended with status 7"},
  };
  for (const auto& [row, notes, expected] : rows) {
    Ended ended;
    ended.status = row.status;
    ended.report = row.report;
    EXPECT_EQ(shown(judge(*findTest(row.test), ended, 2.5, notes)), expected) << notes;
  }
}

TEST(Judge, KnowsADeadEnd) {
  const struct {
    Outcome outcome;
    const char *call, *bar;
  } rows[] = {
      {Outcome::couldNotLoad, "", "could not be loaded"},
      {Outcome::hung, "C_Initialize", "hung in C_Initialize"},
      {Outcome::crashed, "C_Initialize", "crashed in C_Initialize"},
      {Outcome::failed, "C_Initialize", ""},
      {Outcome::hung, "C_Login", ""},
      {Outcome::crashed, "", ""},
      {Outcome::passed, "", ""},
  };
  for (const auto& row : rows) {
    kestrel::run::Run run;
    run.outcome = row.outcome;
    run.call = row.call;
    EXPECT_EQ(barToModule(run), row.bar) << outcomeName(row.outcome) << row.call;
  }
}

TEST(Judge, ReadsTheCallsOfAReport) {
  const auto run = runOf(
      {"signData",
       "C_Login() passed\nx C_Login() passed\n"
       "Enter PIN for the card in slot 12 (max length = 31): C_Login() passed\n"
       "Enter PIN for the card in slot x (max length = 31): C_Login() passed\n"
       "C_SetPIN() passed: changed pin\nC_SetPIN() passed and more\nFind objects init() passed\n"
       "CKU_CONTEXT_SPECIFIC C_Login() passed\nC_X-Y() passed\n" +
           failed("C_Sign", "0x5", "CKR_X") + verified + unchecked,
       "", exited(3), ""});
  std::string calls;
  for (const ReportedCall& call : run.calls) {
    calls += fmt::format("{}{} {:#x} {}\n", call.passed ? "" : "!", call.name, call.value,
                         call.valueName);
  }
  EXPECT_EQ(calls,
            "C_Login 0x0 CKR_OK\nC_Login 0x0 CKR_OK\nC_SetPIN 0x0 CKR_OK\n"
            "Find objects init 0x0 CKR_OK\nCKU_CONTEXT_SPECIFIC C_Login 0x0 CKR_OK\n"
            "!C_Sign 0x5 CKR_X\nC_Sign 0x0 CKR_OK\nverifySig 0x0 CKR_OK\nC_Sign 0x0 CKR_OK\n"
            "verifySig 0x0 CKR_OK\n");
  EXPECT_EQ(run.verified, 1u);
  EXPECT_EQ(run.unchecked, 1u);
  EXPECT_EQ(run.exitStatus, 3);
  EXPECT_EQ(runOf({"login", "", "", SIGINT, ""}).exitStatus, 130);
  std::string flood;
  for (int i = 0; i < 100'001; ++i) flood += "C_X() passed\n";
  EXPECT_EQ(runOf({"login", flood, "", 0, ""}).calls.size(), 100'000u);
}

// The answer to a prompt goes to nobody else.
TEST(Judge, KnowsAPromptAtTheEndOnly) {
  const std::string prompt = "Enter PIN for the card in slot 7 (max length = 31): ";
  EXPECT_EQ(promptAtEnd("text\n" + prompt), 7u);
  EXPECT_EQ(promptAtEnd("Enter PIN for the card in slot " + prompt), 7u);
  for (const std::string& other :
       {prompt + "\n", prompt.substr(1), prompt.substr(0, 51), std::string(),
        std::string("Enter PIN for the card in slot  (max length = 31): ")}) {
    EXPECT_FALSE(promptAtEnd(other)) << other;
  }
}

TEST(Judge, BarsLoginsBehindAPinInDoubt) {
  const std::string unknown = "whether the PIN was refused is not known: ";
  const std::string changed = "C_OpenSession() passed\nC_SetPIN() passed: changed pin\n";
  const std::string back = "C_Login() passed: logged in with original pin\n";
  const std::string refused = failed("C_Login", "0xa0", "CKR_PIN_INCORRECT");
  const std::string died = "kestrel: SIGSEGV in the module's ";
  const struct {
    Row row;
    bool accepted;
    std::string bar;
  } rows[] = {
      {{"login", refused, "", exited(1), ""},
       true,
       "the PIN was refused in login: CKR_PIN_INCORRECT"},
      {{"login", failed("C_Login", "0xa4", ""), "", exited(1), ""},
       true,
       "the PIN was refused in login: CKR_PIN_LOCKED"},
      {{"signData", failed("CKU_CONTEXT_SPECIFIC C_Login", "0xa2", ""), "", exited(1), ""},
       false,
       "the PIN was refused in signData: CKR_PIN_LEN_RANGE"},
      {{"login", failed("C_Login", "0x9f", ""), "", exited(1), ""}, false, ""},
      {{"login", failed("C_Login", "0xa5", ""), "", exited(1), ""}, false, ""},
      {{"login", failed("C_Sign", "0xa0", ""), "", exited(1), ""}, false, ""},
      {{"login", "", died + "C_Login()\n", SIGSEGV, ""}, false, unknown + "login crashed"},
      {{"login", "", died + "C_Login()\n", SIGSEGV, ""}, true, ""},
      {{"login", "", died + "C_Sign()\n", SIGSEGV, ""}, false, ""},
      {{"login", "", "", SIGSEGV, ""}, false, unknown + "login crashed"},
      {{"login", "", "", exited(0), ""}, false, unknown + "login failed"},
      {{"login", "No Card Readers detected.\n", "", exited(1), ""}, false, ""},
      {{"changePinTest", changed + "PIN change failed: return value: 160\n" + end, "", 0, ""},
       true,
       "the PIN was refused in changePinTest: CKR_PIN_INCORRECT"},
      {{"changePinTest", changed + "PIN change failed: return value: 5\n" + end, "", 0, ""},
       true,
       "the PIN may be 24682468 since changePinTest"},
      {{"changePinTest", changed + back + end, "", 0, ""}, true, ""},
      {{"changePinTest", changed + back + changed + end, "", 0, ""},
       true,
       "the PIN may be 24682468 since changePinTest"},
      {{"changePinTest", "", died + "C_SetPIN()\n", SIGSEGV, ""},
       true,
       "the PIN may be 24682468 since changePinTest"},
      {{"login", changed + end, "", 0, ""}, true, ""},
  };
  for (const auto& row : rows) {
    const kestrel::Test& test = *findTest(row.row.test);
    EXPECT_EQ(barToLogin(test, runOf(row.row), row.accepted), row.bar) << row.row.report;
  }
  auto cut = runOf({"changePinTest", end, "", 0, ""});
  cut.cut = true;
  EXPECT_NE(barToLogin(*findTest("changePinTest"), cut, true), "");
  EXPECT_EQ(passedLogins(runOf({"login", login + refused + login, "", exited(1), ""})), 2u);
}

TEST(Judge, AddsWhatTheShimFound) {
  auto run = runOf({"signData", failed("C_Sign", "0x5", ""), "", exited(1), ""});
  addFindings(
      {"+a\n+b\n+a\n-b\n-c\nx\n",
       "C_SignInit(session=1, mechanism=CKM_A(salt=1), key=2) = CKR_OK 0x0 <9 us>\n"
       "C_Sign(session=1) = CKR_OK 0x0 <30 us>\nC_Sign(data=\") = <7 us>\") = CKR_OK 0x0 <10 us>\n"
       "C_Sign(session=1) = CKR_GENERAL_ERROR 0x5 <20 us>\nC_Sign(session=1) = unfinished\n"},
      run);
  EXPECT_EQ(run.waived, (std::map<std::string, std::size_t>{{"a", 2}}));
  EXPECT_EQ(shown(run), "failed: C_Sign CKR_GENERAL_ERROR, CKM_A; C_Sign 0x5 CKR_GENERAL_ERROR");
  std::string times;
  for (const FunctionTime& time : run.times) {
    times += fmt::format("{} {} {} {}\n", time.name, time.count, time.median, time.largest);
  }
  EXPECT_EQ(times, "C_SignInit 1 9 9\nC_Sign 3 20 30\n");
  EXPECT_EQ(run.trace.substr(0, 10), "C_SignInit");

  auto other = runOf({"login", failed("C_Login", "0x5", ""), "", exited(1), ""});
  addFindings(
      {"", "C_SignInit(mechanism=CKM_A) = CKR_OK 0x0 <9 us>\nC_Login(pin) = x 0x5 <1 us>\n"},
      other);
  EXPECT_EQ(shown(other), "failed; C_Login 0x5 CKR_GENERAL_ERROR");
}

}  // namespace
}  // namespace kestrel::run
