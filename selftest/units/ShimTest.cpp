// The shim between a module and callers of other habits than kestrel's.
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <thread>

#include "harness/CkrName.h"
#include "selftest/units/Shimmed.h"

namespace {

CK_RV sign(CK_FUNCTION_LIST& module, CK_MECHANISM_TYPE type, void* parameter, CK_ULONG length) {
  CK_MECHANISM mechanism{type, parameter, length};
  return module.C_SignInit(1, &mechanism, 10);
}

CK_RV attribute(CK_FUNCTION_LIST& module, CK_ATTRIBUTE_TYPE type, void* value, CK_ULONG length) {
  CK_ATTRIBUTE one{type, value, length};
  return module.C_GetAttributeValue(1, 11, &one, 1);
}

CK_ULONG number = 0;
CK_BYTE bytes[8] = {1, 2};

// Calls, each with what the trace says of it.
const struct {
  CK_RV (*call)(CK_FUNCTION_LIST&);
  const char* traced;
} oddCalls[] = {
    {[](auto& m) { return m.C_GetSlotList(0, nullptr, nullptr); },
     "C_GetSlotList(tokenPresent=0, list=null, count=null) = CKR_ARGUMENTS_BAD 0x7"},
    {[](auto& m) { return m.C_GetSlotList(0, &(number = 1), nullptr); },
     "C_GetSlotList(tokenPresent=0, list=&, count=null) = CKR_ARGUMENTS_BAD 0x7"},
    {[](auto& m) { return m.C_GetMechanismList(1, nullptr, nullptr); },
     "C_GetMechanismList(slot=1, list=null, count=null) = CKR_ARGUMENTS_BAD 0x7"},
    {[](auto& m) { return m.C_GetMechanismInfo(1, 0x1, nullptr); },
     "C_GetMechanismInfo(slot=1, type=CKM_RSA_PKCS, info=null) = CKR_ARGUMENTS_BAD 0x7"},
    {[](auto& m) { return m.C_SignInit(1, nullptr, 10); },
     "C_SignInit(session=1, mechanism=null, key=10) = CKR_ARGUMENTS_BAD 0x7"},
    {[](auto& m) { return sign(m, CKM_SHA256_RSA_PKCS_PSS, nullptr, 24); },
     "C_SignInit(session=1, mechanism=CKM_SHA256_RSA_PKCS_PSS([24]), key=10) = "
     "CKR_MECHANISM_PARAM_INVALID 0x71"},
    {[](auto& m) { return sign(m, CKM_SHA256_RSA_PKCS_PSS, bytes, 2); },
     "C_SignInit(session=1, mechanism=CKM_SHA256_RSA_PKCS_PSS(0102[2]), key=10) = "
     "CKR_MECHANISM_PARAM_INVALID 0x71"},
    {[](auto& m) { return sign(m, CKM_AES_GCM, bytes, 1); },
     "C_SignInit(session=1, mechanism=CKM_AES_GCM(01[1]), key=10) = CKR_MECHANISM_INVALID 0x70"},
    {[](auto& m) { return m.C_Sign(1, nullptr, 0, nullptr, nullptr); },
     "C_Sign(session=1, data=null[0], signature=null[null]) = CKR_OPERATION_NOT_INITIALIZED 0x91"},
    {[](auto& m) { return m.C_SetPIN(1, nullptr, 0, nullptr, 0); },
     "C_SetPIN(session=1, oldPin=null[0], newPin=null[0]) = CKR_ARGUMENTS_BAD 0x7"},
    {[](auto& m) { return m.C_FindObjectsInit(1, nullptr, 3); },
     "C_FindObjectsInit(session=1, template={}[3]) = CKR_ARGUMENTS_BAD 0x7"},
    {[](auto& m) { return m.C_FindObjects(1, nullptr, 0, nullptr); },
     "C_FindObjects(session=1, objects=null, room=0, count=null) = CKR_OPERATION_NOT_INITIALIZED "
     "0x91"},
    {[](auto& m) { return m.C_GetAttributeValue(1, 11, nullptr, 2); },
     "C_GetAttributeValue(session=1, object=11, attributes={}[2]) = CKR_ARGUMENTS_BAD 0x7"},
    {[](auto& m) { return attribute(m, CKA_ID, nullptr, 0); },
     "C_GetAttributeValue(session=1, object=11, attributes={CKA_ID=null}[1]) = CKR_OK 0x0 <> "
     "attributes={CKA_ID=null[1]}[1]"},
    {[](auto& m) { return attribute(m, CKA_VALUE, bytes, 2); },
     "C_GetAttributeValue(session=1, object=11, attributes={CKA_VALUE=[2]}[1]) = "
     "CKR_ATTRIBUTE_TYPE_INVALID 0x12"},
};

// The calls of a trace behind C_GetFunctionList, without their times.
void expectTraced(const TemporaryFile& trace, const std::vector<std::string>& expected) {
  std::vector<std::string> lines = trace.lines();
  for (std::string& line : lines) {
    const std::size_t end = line.find(" us>");
    const std::size_t time = end == line.npos ? end : line.rfind('<', end) + 1;
    if (end != line.npos) line.erase(time, end + 3 - time);
  }
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(std::vector(lines.begin() + 1, lines.end()), expected);
}

// kestrel keeps a list of its own, which stays as it is when the header grows.
TEST(Shim, NamesResultsAsKestrelDoes) {
  const struct {
    CK_ULONG value;
    std::string_view name;
  } names[] = {
#include "Names.inc"
  };
  std::size_t known = 0;
  for (const auto& [value, name] : names) {
    const std::string_view ours = ckrName(static_cast<std::uint32_t>(value));
    if (!name.starts_with("CKR_") || ours == "UNKNOWN") continue;
    EXPECT_EQ(ours, name);
    ++known;
  }
  EXPECT_EQ(known, 88u);
}

TEST(Shim, AnswersOddCallsAsTheModuleDoes) {
  const TemporaryFile trace;
  Shimmed shimmed(TOKEN, {{"TOKEN", "kestrel token"},
                          {"MECHANISMS", "signable"},
                          {"WAIVE", "all"},
                          {"TRACE", trace.path}});
  CK_FUNCTION_LIST& module = listOf(shimmed.module());
  CK_FUNCTION_LIST& shim = shimmed.list();
  ASSERT_EQ(module.C_Initialize(nullptr), CKR_OK);
  CK_SESSION_HANDLE session = 0;
  ASSERT_EQ(
      module.C_OpenSession(1, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
      CKR_OK);
  CK_UTF8CHAR pin[] = "12345678";
  ASSERT_EQ(module.C_Login(session, CKU_USER, pin, 8), CKR_OK);
  std::vector<std::string> traced;
  for (const auto& odd : oddCalls) {
    EXPECT_EQ(odd.call(shim), odd.call(module)) << odd.traced;
    traced.emplace_back(odd.traced);
    if (traced.back().find('<') == std::string::npos) traced.back() += " <>";
  }
  expectTraced(trace, traced);
}

// What a careless caller has in a variable that the module is to fill: "12345678".
constexpr CK_ULONG residue = 0x3837363534333231;
CK_ULONG filled = residue;
CK_BYTE label[8] = {'1', '2', '3', '4'};

// Bytes that end where memory does.
CK_BYTE* endOfMemory() {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  static void* const pages =
      mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  mprotect(static_cast<CK_BYTE*>(pages) + page, page, PROT_NONE);
  return static_cast<CK_BYTE*>(pages) + page;
}

// What the stand-in answers with, and writes if it does.
CK_RV answer = CKR_OK;
std::optional<CK_ULONG> written;

CK_RV fill(CK_ULONG* output) {
  if (written) *output = *written;
  return answer;
}

CK_RV fillAttributes(CK_SESSION_HANDLE, CK_OBJECT_HANDLE, CK_ATTRIBUTE* attributes,
                     CK_ULONG count) {
  for (CK_ULONG i = 0; written && i < count; ++i) attributes[i].ulValueLen = *written;
  return answer;
}

CK_RV readAttributes(CK_FUNCTION_LIST& module) {
  CK_ATTRIBUTE attributes[] = {{CKA_ID, nullptr, residue}, {CKA_LABEL, label, sizeof label}};
  return module.C_GetAttributeValue(1, 2, attributes, 2);
}

CK_RV openSession(CK_FUNCTION_LIST& module) {
  return module.C_OpenSession(9, CKF_SERIAL_SESSION, nullptr, nullptr, &filled);
}

// The child comes back from the call as the parent does, and makes one of its own.
CK_RV forkInCall(CK_FUNCTION_LIST& module) {
  const pid_t parent = getpid();
  const CK_RV result = module.C_CloseSession(1);
  if (getpid() != parent) _exit(static_cast<int>(module.C_CloseSession(2)));
  return result;
}

CK_SLOT_ID list[4];

const struct {
  CK_RV answer;
  std::optional<CK_ULONG> written;
  CK_RV (*call)(CK_FUNCTION_LIST&);
  const char* traced;
} residualCalls[] = {
    {CKR_TOKEN_NOT_PRESENT, 7, openSession,
     "C_OpenSession(slot=9, flags=0x4, application=null, notify=null, session=&) = "
     "CKR_TOKEN_NOT_PRESENT 0xe0 <>"},
    {CKR_OK, 7, openSession,
     "C_OpenSession(slot=9, flags=0x4, application=null, notify=null, session=&) = CKR_OK 0x0 <> "
     "session=7"},
    {CKR_OK,
     {},
     openSession,
     "C_OpenSession(slot=9, flags=0x4, application=null, notify=null, session=&) = CKR_OK 0x0 <>"},
    {CKR_OK, 3, [](auto& m) { return m.C_GetSlotList(0, nullptr, &filled); },
     "C_GetSlotList(tokenPresent=0, list=null, count=&) = CKR_OK 0x0 <> count=3"},
    {CKR_BUFFER_TOO_SMALL, 5, [](auto& m) { return m.C_GetSlotList(0, list, &(number = 4)); },
     "C_GetSlotList(tokenPresent=0, list=&, count=&4) = CKR_BUFFER_TOO_SMALL 0x150 <> count=5"},
    {CKR_BUFFER_TOO_SMALL,
     {},
     [](auto& m) { return m.C_Sign(1, bytes, 2, nullptr, &filled); },
     "C_Sign(session=1, data=0102[2], signature=null[&]) = CKR_BUFFER_TOO_SMALL 0x150 <>"},
    {CKR_BUFFER_TOO_SMALL, 9, [](auto& m) { return m.C_Sign(1, bytes, 2, bytes, &(number = 8)); },
     "C_Sign(session=1, data=0102[2], signature=&[8]) = CKR_BUFFER_TOO_SMALL 0x150 <> "
     "signature=[9]"},
    {CKR_DATA_INVALID, 9, [](auto& m) { return m.C_Sign(1, bytes, 2, bytes, &(number = 8)); },
     "C_Sign(session=1, data=0102[2], signature=&[8]) = CKR_DATA_INVALID 0x20 <>"},
    {CKR_OK, 2, readAttributes,
     "C_GetAttributeValue(session=1, object=2, attributes={CKA_ID=null CKA_LABEL=[8]}[2]) = CKR_OK "
     "0x0 <> attributes={CKA_ID=null[2] CKA_LABEL=[2]}[2]"},
    {CKR_BUFFER_TOO_SMALL, 9, readAttributes,
     "C_GetAttributeValue(session=1, object=2, attributes={CKA_ID=null CKA_LABEL=[8]}[2]) = "
     "CKR_BUFFER_TOO_SMALL 0x150 <> attributes={CKA_ID=null[9] CKA_LABEL=[9]}[2]"},
    {CKR_ATTRIBUTE_SENSITIVE,
     {},
     readAttributes,
     "C_GetAttributeValue(session=1, object=2, attributes={CKA_ID=null CKA_LABEL=[8]}[2]) = "
     "CKR_ATTRIBUTE_SENSITIVE 0x11 <>"},
    {CKR_OK,
     {},
     [](auto& m) { return sign(m, CKM_EDDSA, &filled, 24); },
     "C_SignInit(session=1, mechanism=CKM_EDDSA([24]), key=10) = CKR_OK 0x0 <>"},
    {CKR_OK,
     {},
     [](auto& m) { return m.C_Sign(1, endOfMemory() - 2, 2, nullptr, nullptr); },
     "C_Sign(session=1, data=0000[2], signature=null[null]) = CKR_OK 0x0 <>"},
    {CKR_OK,
     {},
     [](auto& m) { return m.C_Sign(1, endOfMemory() - 2, 9, nullptr, nullptr); },
     "C_Sign(session=1, data=&[9], signature=null[null]) = CKR_OK 0x0 <>"},
    {CKR_OK,
     {},
     [](auto& m) { return sign(m, CKM_SHA256_RSA_PKCS_PSS, endOfMemory(), 24); },
     "C_SignInit(session=1, mechanism=CKM_SHA256_RSA_PKCS_PSS([24]), key=10) = CKR_OK 0x0 <>"},
    {CKR_OK,
     {},
     [](auto& m) { return attribute(m, CKA_ID, endOfMemory(), 4); },
     "C_GetAttributeValue(session=1, object=11, attributes={CKA_ID=[4]}[1]) = CKR_OK 0x0 <> "
     "attributes={CKA_ID=&[4]}[1]"},
    {CKR_OK,
     {},
     [](auto& m) {
       auto* const attributes = reinterpret_cast<CK_ATTRIBUTE*>(endOfMemory());
       return m.C_FindObjectsInit(1, attributes, 2);
     },
     "C_FindObjectsInit(session=1, template=&[2]) = CKR_OK 0x0 <>"},
    {CKR_OK, {}, forkInCall, "C_CloseSession(session=1) = CKR_OK 0x0 <>"},
};

TEST(Shim, TracesNothingThatACallerDidNotGive) {
  const TemporaryFile trace;
  Shimmed shimmed(STAND_IN, {{"TRACE", trace.path}, {"WAIVE", "all"}});
  CK_FUNCTION_LIST& module = shimmed.behind();
  module.C_OpenSession = [](auto, auto, auto, auto, CK_ULONG* session) { return fill(session); };
  module.C_GetSlotList = [](auto, auto, CK_ULONG* count) { return fill(count); };
  module.C_Sign = [](auto, auto, auto, auto, CK_ULONG* length) { return fill(length); };
  module.C_SignInit = [](auto, auto, auto) { return answer; };
  module.C_FindObjectsInit = [](auto, auto, auto) { return answer; };
  module.C_GetAttributeValue = fillAttributes;
  module.C_CloseSession = [](auto session) {
    if (session == 1 && fork() != 0) wait(nullptr);
    return CKR_OK;
  };
  CK_FUNCTION_LIST& shim = shimmed.list();
  std::vector<std::string> traced;
  for (const auto& row : residualCalls) {
    answer = row.answer;
    written = row.written;
    filled = residue;
    EXPECT_EQ(row.call(shim), row.answer);
    traced.emplace_back(row.traced);
  }
  expectTraced(trace, traced);
}

// The end of a process whose module has threads, late enough for them to go on.
[[noreturn]] void endWithThreads(int status) {
  std::atexit([] { usleep(20000); });
  auto* const shimmed = new Shimmed(STAND_IN, {});
  for (int i = 0; i < 2; ++i) std::thread(find<void()>(shimmed->module(), "keepBusy")).detach();
  std::exit(status);
}

TEST(Shim, UnloadsTheModuleWithItselfAndNotAtTheEnd) {
  Shimmed(STAND_IN, {}).list();
  EXPECT_EQ(dlopen(STAND_IN, RTLD_NOW | RTLD_NOLOAD), nullptr);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EXIT(endWithThreads(i), testing::ExitedWithCode(i), "");
  }
}

}  // namespace
