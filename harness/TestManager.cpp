#include "harness/TestManager.h"

#include <dlfcn.h>

#include <iostream>

#include "harness/Report.h"

namespace {

constexpr char modulePath[] = "./libnorvalepk11.so";
constexpr char separator[] = "---------------------------------------\n";

struct Unloader {
  void operator()(void* handle) const {
    const CallInFlight inFlight("dlclose");  // its destructors run there
    dlclose(handle);
  }
};
using LoadedModule = std::unique_ptr<void, Unloader>;

const char* loaderError() {
  const char* text = dlerror();
  return text == nullptr ? "unknown error" : text;
}

[[noreturn]] void endWithoutModule() {
  std::cout << separator;
  endProgram(1);
}

LoadedModule openModule() {
  const CallInFlight inFlight("dlopen");  // the module's constructors run there
  LoadedModule handle(dlopen(modulePath, RTLD_LAZY));
  if (handle == nullptr) {
    std::cerr << "Failed to open PKCS#11 library " << modulePath << ": " << loaderError()
              << std::endl;
    endWithoutModule();
  }
  return handle;
}

CK_C_GetFunctionList findEntryPoint(LoadedModule& handle) {
  dlerror();
  void* symbol = dlsym(handle.get(), "C_GetFunctionList");
  if (symbol == nullptr) {
    std::cerr << "Failed to retrieve 'C_GetFunctionList': " << loaderError() << std::endl;
    handle.reset();
    endWithoutModule();
  }
  return reinterpret_cast<CK_C_GetFunctionList>(symbol);
}

}  // namespace

TestManager::TestManager() {
  std::cout << separator;
}

TestManager::~TestManager() {
  std::cout << separator;
  teardown();
}

CK_RV TestManager::setup() {
  std::cout << "kestrel version: " KESTREL_VERSION " \n"
            << "setup test...\n"
            << "Loading " << modulePath << "\n";
  LoadedModule handle = openModule();
  std::cout << "Retrieving function pointer to C_GetFunctionList from " << modulePath << " \n";
  const CK_C_GetFunctionList getFunctionList = findEntryPoint(handle);
  moduleHandle = handle.release();
  std::cout << "passed: get function pointer to C_GetFunctionList " << modulePath << ")\n"
            << "invoke C_GetFunctionList \n";
  if (callModule("C_GetFunctionList", getFunctionList, &functionList) != CKR_OK) {
    functionList = nullptr;  // whatever a failed call left there is not to be called
    std::cerr << "C_GetFunctionList failed\n";
    return 1;
  }
  require(p11::C_Initialize, nullptr);
  return CKR_OK;
}

CK_RV TestManager::teardown() {
  if (moduleHandle == nullptr) return CKR_OK;
  std::cout << "teardown test\n";
  require(p11::C_Finalize, nullptr);
  LoadedModule(moduleHandle).reset();
  moduleHandle = nullptr;
  functionList = nullptr;
  return CKR_OK;
}
