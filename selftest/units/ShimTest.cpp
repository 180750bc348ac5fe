// The shim between a module and callers of other habits than kestrel's.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "harness/CkrName.h"
#include "harness/Pkcs11.h"

namespace {

CK_FUNCTION_LIST* listOf(const char* path) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return nullptr;
  CK_FUNCTION_LIST* list = nullptr;
  const auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  return get(&list) == CKR_OK ? list : nullptr;
}

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
     "C_GetAttributeValue(session=1, object=11, attributes={CKA_ID=null[0]}[1]) = CKR_OK 0x0"},
    {[](auto& m) { return attribute(m, CKA_VALUE, bytes, 2); },
     "C_GetAttributeValue(session=1, object=11, attributes={CKA_VALUE=[2]}[1]) = "
     "CKR_ATTRIBUTE_TYPE_INVALID 0x12"},
};

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
  const std::string trace = testing::TempDir() + "kestrel-shim." + std::to_string(getpid());
  setenv("KESTREL_SHIM_MODULE", TOKEN, 1);
  setenv("KESTREL_SHIM_TOKEN", "kestrel token", 1);
  setenv("KESTREL_SHIM_MECHANISMS", "signable", 1);
  setenv("KESTREL_SHIM_WAIVE", "all", 1);
  setenv("KESTREL_SHIM_TRACE", trace.c_str(), 1);
  CK_FUNCTION_LIST* const module = listOf(TOKEN);
  CK_FUNCTION_LIST* const shim = listOf(SHIM);
  ASSERT_TRUE(module != nullptr && shim != nullptr);
  ASSERT_EQ(module->C_Initialize(nullptr), CKR_OK);
  CK_SESSION_HANDLE session = 0;
  ASSERT_EQ(
      module->C_OpenSession(1, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
      CKR_OK);
  CK_UTF8CHAR pin[] = "12345678";
  ASSERT_EQ(module->C_Login(session, CKU_USER, pin, 8), CKR_OK);
  for (const auto& odd : oddCalls) EXPECT_EQ(odd.call(*shim), odd.call(*module)) << odd.traced;
  std::ifstream lines(trace);
  std::string line;
  std::getline(lines, line);  // C_GetFunctionList
  for (const auto& odd : oddCalls) {
    std::getline(lines, line);
    EXPECT_EQ(line.substr(0, line.find(" <")), odd.traced);
  }
  EXPECT_FALSE(std::getline(lines, line)) << line;
  std::remove(trace.c_str());
}

}  // namespace
