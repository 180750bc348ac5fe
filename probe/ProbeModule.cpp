#include "probe/ProbeModule.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include "probe/Values.h"

namespace kestrel::probe {

namespace {

[[noreturn]] void fail(const char* call, std::optional<CK_RV> value, std::string detail,
                       Verdict verdict = Verdict::deviates) {
  throw SetUpFailed{{verdict, call, value, std::move(detail)}};
}

// CK_C_INITIALIZE_ARGS as modules with library parameters have it: a pointer to the text where the
// standard's structure ends with a reserved one, and that one behind it.
struct InitializeArguments {
  CK_C_INITIALIZE_ARGS standard;
  void* reserved;
};

}  // namespace

void Module::require(CK_RV value) const {
  if (value != CKR_OK) fail(nameOf(caller_.lastFunction), value, "");
}

bool Module::canReach(Stage stage) const {
  if (stage == Stage::finalized) return stage_ == Stage::loaded || stage_ == Stage::finalized;
  return stage_ <= stage && stage_ != Stage::finalized;
}

void Module::reach(Stage stage) {
  if (!loaded_) load();
  while (stage_ != stage) {
    switch (stage_) {
      case Stage::loaded:
        initialize();
        if (stage == Stage::finalized) finalize();
        break;
      case Stage::initialized:
        session_ = openSession();
        stage_ = Stage::session;
        break;
      case Stage::session:
        logIn();
        stage_ = Stage::user;
        break;
      default:
        throw std::logic_error("no way to that stage");
    }
  }
}

void Module::load() {
  caller_.begin(loaderCall);
  void* const handle = dlopen(target_.module.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) fail("dlopen", {}, dlerror());
  const auto entry = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
  caller_.end();
  if (entry == nullptr) fail("C_GetFunctionList", {}, "the module does not export it");
  const MemoryScope scope(caller_.memory);
  auto* const list = caller_.memory.out<CK_FUNCTION_LIST*>(nullptr);
  require(callModule(FunctionId::C_GetFunctionList, entry, list));
  if (*list == nullptr) fail("C_GetFunctionList", CKR_OK, "gave no list of functions");
  functionLists.list2 = *list;
  loaded_ = true;
}

CK_RV Module::callInitialize() {
  const MemoryScope scope(caller_.memory);
  Memory& memory = caller_.memory;
  void* arguments = nullptr;
  if (target_.initArguments) {
    InitializeArguments all{};
    all.standard.flags = CKF_OS_LOCKING_OK;
    all.standard.pReserved = memory.in(
        std::string_view(target_.initArguments->c_str(), target_.initArguments->size() + 1));
    arguments = memory.in(all);
  }
  return p11::C_Initialize(arguments);
}

void Module::initialize() {
  const CK_RV value = callInitialize();
  if (value != CKR_OK) {
    fail("C_Initialize", value, target_.initArguments ? "" : "some modules want --init-args");
  }
  stage_ = Stage::initialized;
}

void Module::finalize() {
  require(p11::C_Finalize(nullptr));
  stage_ = Stage::finalized;
}

CK_SESSION_HANDLE Module::openSession() {
  const MemoryScope scope(caller_.memory);
  auto* const handle = caller_.memory.out<CK_SESSION_HANDLE>(CK_INVALID_HANDLE);
  const CK_FLAGS writing = target_.token.readOnly ? 0 : CKF_RW_SESSION;
  require(p11::C_OpenSession(target_.token.slot, CKF_SERIAL_SESSION | writing, nullptr, nullptr,
                             handle));
  return *handle;
}

void Module::logIn() {
  if (!target_.token.wantsLogin()) return;
  if (target_.pin == nullptr) fail("C_Login", {}, target_.noPin, Verdict::notApplicable);
  if (board_.login == LoginState::refused) {
    fail("C_Login", board_.loginResult, "it is not tried again");
  }
  if (board_.login != LoginState::proven) board_.login = LoginState::underway;
  const CK_RV value = givePin(session_, CKU_USER);
  board_.loginResult = value;
  board_.login = value == CKR_OK ? LoginState::proven : LoginState::refused;
  if (value != CKR_OK) fail("C_Login", value, "it is not tried again");
}

CK_RV Module::givePin(CK_SESSION_HANDLE session, CK_USER_TYPE type) {
  const MemoryScope scope(caller_.memory);
  const std::string_view pin = target_.pin->text();
  return p11::C_Login(session, type, caller_.memory.in(pin), pin.size());
}

void Module::leave() {
  if (!loaded_ || stage_ == Stage::loaded || stage_ == Stage::finalized) return;
  p11::C_Finalize(nullptr);
}

}  // namespace kestrel::probe
