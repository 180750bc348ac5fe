// What the shim changes, between modules that are wrong in one way each and callers that can tell.
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <numeric>
#include <optional>
#include <utility>

#include "selftest/units/Shimmed.h"

namespace {

using Pointers = std::array<void*, sizeof(CK_FUNCTION_LIST) / sizeof(void*)>;

Pointers pointersOf(const CK_FUNCTION_LIST& list) {
  Pointers pointers;
  std::memcpy(&pointers, &list, sizeof list);
  pointers[0] = nullptr;  // the version
  return pointers;
}

TEST(Shim, StandsOnlyBeforeWhatItChanges) {
  const TemporaryFile trace;
  const struct {
    const char *name, *value;
    std::ptrdiff_t changed;  // beside C_GetFunctionList
  } rows[] = {{"WAIVE", "read-only", 1},      {"TOKEN", "own", 1},
              {"WAIVE", "fixed-slot", 3},     {"MECHANISMS", "3", 1},
              {"WAIVE", "salt-length", 9},    {"TRACE", trace.path.c_str(), 67},
              {"USED", trace.path.c_str(), 0}};
  for (const auto& [name, value, changed] : rows) {
    Shimmed shimmed(TOKEN, {{name, value}});
    const Pointers behind = pointersOf(listOf(shimmed.module()));
    const Pointers before = pointersOf(shimmed.list());
    const auto differ = std::inner_product(behind.begin(), behind.end(), before.begin(),
                                           std::ptrdiff_t{0}, std::plus<>(), std::not_equal_to<>());
    EXPECT_EQ(differ, changed + 1) << name << "=" << value;
  }
}

TEST(Shim, AnswersWithAnErrorWhereASettingMakesNoSense) {
  Shimmed shimmed(STAND_IN, {{"TOKEN", ""}});
  CK_FUNCTION_LIST& shim = shimmed.list();
  EXPECT_EQ(std::ranges::count(pointersOf(shim), nullptr), 1);
  EXPECT_EQ(shim.C_GetSlotList(CK_TRUE, nullptr, nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(shim.C_Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
  EXPECT_EQ(shim.C_Initialize(nullptr), CKR_GENERAL_ERROR);
}

constexpr CK_ULONG mechanisms = 100;  // of the module; the first three are wanted

// How a module answers to too little room.
CK_RV toLittleRoom = CKR_OK;

CK_RV listMechanisms(CK_SLOT_ID, CK_MECHANISM_TYPE* list, CK_ULONG* count) {
  if (count == nullptr) return toLittleRoom;
  const CK_ULONG room = std::exchange(*count, mechanisms);
  if (list == nullptr) return CKR_OK;
  if (room < mechanisms && toLittleRoom != CKR_OK) return toLittleRoom;
  for (CK_ULONG i = 0; i < mechanisms; ++i) list[i] = i;
  return CKR_OK;
}

TEST(Shim, WritesNoMoreThanACallerHasRoomFor) {
  Shimmed shimmed(STAND_IN, {{"MECHANISMS", "0,1,2"}, {"TOKEN", "own"}});
  shimmed.behind().C_GetMechanismList = listMechanisms;
  shimmed.behind().C_GetSlotList = [](auto, auto* list, auto* count) {
    return listMechanisms(0, list, count);
  };
  CK_FUNCTION_LIST& shim = shimmed.list();
  const struct {
    CK_ULONG room;
    CK_RV toLittleRoom, result;
  } rows[] = {
      {8, CKR_OK, CKR_OK},
      {3, CKR_OK, CKR_OK},
      {3, CKR_BUFFER_TOO_SMALL, CKR_OK},
      {2, CKR_BUFFER_TOO_SMALL, CKR_BUFFER_TOO_SMALL},
      {0, CKR_BUFFER_TOO_SMALL, CKR_BUFFER_TOO_SMALL},
      {0, CKR_DEVICE_ERROR, CKR_DEVICE_ERROR},
      {2, CKR_OK, CKR_OK},  // its own wrong answer
  };
  testing::internal::CaptureStderr();
  for (const auto& row : rows) {
    toLittleRoom = row.toLittleRoom;
    std::array<CK_MECHANISM_TYPE, 8> list;
    list.fill(99);
    CK_ULONG count = row.room;
    EXPECT_EQ(shim.C_GetMechanismList(1, list.data(), &count), row.result);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(std::ranges::count(list, 99u),
              row.result == CKR_OK ? 8 - std::min<CK_ULONG>(row.room, 3) : 8);
  }
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "kestrel-shim: C_GetMechanismList answers with 100 entries where it was told of room for "
      "2\n");
  EXPECT_EQ(shim.C_GetSlotList(CK_TRUE, nullptr, nullptr), CKR_OK);
  EXPECT_EQ(shim.C_GetMechanismList(1, nullptr, nullptr), CKR_OK);
}

// A module that signs, with these deviations.
struct Deviations {
  bool wantsData = false;      // for a length, and looks at nothing else before
  CK_RV refusesSalt = CKR_OK;  // where its length is left open, once there is data
  CK_RV fails = CKR_OK;        // the first signature
};

struct Operation {
  CK_OBJECT_HANDLE key = 0;
  bool open = false;  // the salt's length
};

Deviations deviations;
std::map<CK_SESSION_HANDLE, Operation> operations;

CK_RV beginSigning(CK_SESSION_HANDLE session, CK_MECHANISM* mechanism, CK_OBJECT_HANDLE key) {
  if (operations.contains(session)) return CKR_OPERATION_ACTIVE;
  const auto* const pss = static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism->pParameter);
  operations[session] = {key, pss->sLen == ~CK_ULONG{0}};
  return CKR_OK;
}

// Every error ends the operation.
CK_RV finishSigning(CK_SESSION_HANDLE session, const CK_BYTE* data, const CK_BYTE* signature) {
  if (data == nullptr && deviations.wantsData) return CKR_ARGUMENTS_BAD;
  if (!operations.contains(session)) return CKR_OPERATION_NOT_INITIALIZED;
  if (data != nullptr && operations[session].open && deviations.refusesSalt != CKR_OK) {
    return deviations.refusesSalt;
  }
  return signature == nullptr ? CKR_OK : std::exchange(deviations.fails, CKR_OK);
}

CK_RV signAs(CK_SESSION_HANDLE session, CK_BYTE* data, CK_ULONG, CK_BYTE* signature,
             CK_ULONG* length) {
  const CK_RV result = finishSigning(session, data, signature);
  *length = 1;
  if (result == CKR_OK && signature != nullptr) {
    *signature = static_cast<CK_BYTE>(operations[session].key);
  }
  if (result != CKR_OK || signature != nullptr) operations.erase(session);
  return result;
}

// What a caller does with a module in one session.
struct Caller {
  CK_FUNCTION_LIST& module;
  CK_SESSION_HANDLE session;
  CK_BYTE data[1]{}, signature[1]{};
  CK_ULONG length = 1;

  CK_RV begin(CK_MECHANISM_TYPE digest = CKM_SHA256) {
    CK_RSA_PKCS_PSS_PARAMS parameters{digest, CKG_MGF1_SHA256, ~CK_ULONG{0}};
    CK_MECHANISM mechanism{CKM_RSA_PKCS_PSS, &parameters, sizeof parameters};
    return module.C_SignInit(session, &mechanism, session + 10);
  }
  CK_RV askLength() { return module.C_Sign(session, nullptr, 0, nullptr, &length); }
  CK_RV sign() { return module.C_Sign(session, data, 1, signature, &length); }
  CK_RV all(CK_MECHANISM_TYPE digest) {
    for (const CK_RV result : {begin(digest), askLength(), sign()}) {
      if (result != CKR_OK) return result;
    }
    return signature[0] == session + 10 ? CKR_OK : CKR_SIGNATURE_INVALID;
  }
};

class ShimSigning : public testing::Test {
 protected:
  CK_FUNCTION_LIST& shimThatWaives(const char* waivers) {
    shimmed_.emplace(STAND_IN,
                     std::map<std::string, std::string>{{"WAIVE", waivers}, {"USED", used_.path}});
    CK_FUNCTION_LIST& module = shimmed_->behind();
    module.C_SignInit = beginSigning;
    module.C_Sign = signAs;
    module.C_SignFinal = [](auto session, auto, auto) {
      operations.erase(session);
      return CKR_OK;
    };
    module.C_CloseSession = [](auto session) {
      operations.erase(session);
      return CKR_OK;
    };
    module.C_OpenSession = [](auto slot, auto, auto, auto, auto* session) {
      operations.erase(*session = slot);
      return CKR_OK;
    };
    operations.clear();
    return shimmed_->list();
  }

  // How often each waiver helped.
  std::map<std::string, int> used() {
    std::map<std::string, int> uses;
    for (const std::string& line : used_.lines()) uses[line.substr(1)] += line[0] == '+' ? 1 : -1;
    std::erase_if(uses, [](const auto& use) { return use.second == 0; });
    std::remove(used_.path.c_str());
    return uses;
  }

 private:
  TemporaryFile used_;
  std::optional<Shimmed> shimmed_;
};

using Uses = std::map<std::string, int>;

TEST_F(ShimSigning, WaivesDeviationsAndNoErrors) {
  const struct {
    Deviations deviations;
    CK_MECHANISM_TYPE digest;
    CK_RV result, waived;
    Uses used;
  } rows[] = {
      {{}, CKM_SHA256, CKR_OK, CKR_OK, {}},
      {{.wantsData = true}, CKM_SHA256, CKR_ARGUMENTS_BAD, CKR_OK, {{"length-query", 1}}},
      {{.refusesSalt = 0x71}, CKM_SHA_1, 0x71, CKR_OK, {{"salt-length", 1}}},
      {{.refusesSalt = 0x5}, CKM_SHA384, 0x5, CKR_OK, {{"salt-length", 1}}},
      {{.wantsData = true, .refusesSalt = 0x71},
       CKM_SHA512,
       CKR_ARGUMENTS_BAD,
       CKR_OK,
       {{"length-query", 1}, {"salt-length", 1}}},
      {{.refusesSalt = 0x71}, CKM_SHA224, 0x71, 0x71, {}},
      {{.fails = CKR_DEVICE_ERROR}, CKM_SHA256, CKR_DEVICE_ERROR, CKR_DEVICE_ERROR, {}},
      {{.fails = CKR_HOST_MEMORY}, CKM_SHA256, CKR_HOST_MEMORY, CKR_HOST_MEMORY, {}},
      {{.fails = CKR_SESSION_CLOSED}, CKM_SHA256, CKR_SESSION_CLOSED, CKR_SESSION_CLOSED, {}},
      {{.fails = CKR_GENERAL_ERROR}, CKM_SHA256, CKR_GENERAL_ERROR, CKR_GENERAL_ERROR, {}},
      {{.fails = CKR_FUNCTION_FAILED}, CKM_SHA256, CKR_FUNCTION_FAILED, CKR_FUNCTION_FAILED, {}},
  };
  for (const auto& row : rows) {
    deviations = row.deviations;
    Caller alone{shimThatWaives("fixed-slot"), 1};
    EXPECT_EQ(alone.all(row.digest), row.result);
    deviations = row.deviations;
    Caller helped{shimThatWaives("all"), 1};
    EXPECT_EQ(helped.all(row.digest), row.waived);
    EXPECT_EQ(used(), row.used) << &row - rows;
  }
}

TEST_F(ShimSigning, WaivesOnlyInTheOperationThatWasBegun) {
  deviations = {.wantsData = true};
  CK_FUNCTION_LIST& module = shimThatWaives("all");
  Caller first{module, 1}, second{module, 2};
  EXPECT_EQ(first.askLength(), CKR_ARGUMENTS_BAD) << "nothing begun";
  EXPECT_EQ(first.begin(), CKR_OK);
  EXPECT_EQ(second.begin(), CKR_OK);
  for (Caller* caller : {&first, &second}) EXPECT_EQ(caller->askLength(), CKR_OK);
  for (Caller* caller : {&first, &second}) EXPECT_EQ(caller->sign(), CKR_OK);
  EXPECT_EQ(first.signature[0], 11);
  EXPECT_EQ(second.signature[0], 12);
  EXPECT_EQ(first.askLength(), CKR_ARGUMENTS_BAD) << "signed";
  const std::function<CK_RV()> ends[] = {
      [&] { return module.C_SignFinal(1, nullptr, nullptr); },
      [&] { return module.C_CloseSession(1); },
      [&] { return module.C_OpenSession(1, 0, nullptr, nullptr, &first.session); },
  };
  for (const auto& end : ends) {
    EXPECT_EQ(first.begin(), CKR_OK);
    EXPECT_EQ(end(), CKR_OK);
    EXPECT_EQ(first.askLength(), CKR_ARGUMENTS_BAD) << &end - ends;
  }
  EXPECT_EQ(used(), (Uses{{"length-query", 2}}));
}

}  // namespace
