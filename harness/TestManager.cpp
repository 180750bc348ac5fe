#include "harness/TestManager.h"

#include "harness/ModulePath.h"
#include "harness/Report.h"

namespace kestrel {

namespace {

constexpr char separator[] = "---------------------------------------\n";

[[noreturn]] void endWithoutModule() {
  report << separator;
  endProgram(1);
}

LoadedModule openModule() {
  LoadedModule handle = loadModule(modulePath);
  if (handle == nullptr) {
    sayError({"Failed to open PKCS#11 library ", modulePath, ": ", loaderError(), "\n"});
    endWithoutModule();
  }
  return handle;
}

CK_C_GetFunctionList requireEntryPoint(LoadedModule& handle) {
  const CK_C_GetFunctionList entryPoint = findEntryPoint(handle);
  if (entryPoint == nullptr) {
    sayError({"Failed to retrieve 'C_GetFunctionList': ", loaderError(), "\n"});
    handle.reset();
    endWithoutModule();
  }
  return entryPoint;
}

}  // namespace

TestManager::TestManager() {
  report << separator;
}

TestManager::~TestManager() {
  report << separator;
  teardown();
}

CK_RV TestManager::setup() {
  report << "kestrel version: " KESTREL_VERSION " \n"
         << "setup test...\n"
         << "Loading " << modulePath << "\n";
  LoadedModule handle = openModule();
  report << "Retrieving function pointer to C_GetFunctionList from " << modulePath << " \n";
  const CK_C_GetFunctionList getFunctionList = requireEntryPoint(handle);
  moduleHandle = handle.release();
  report << "passed: get function pointer to C_GetFunctionList " << modulePath << ")\n"
         << "invoke C_GetFunctionList \n";
  CK_FUNCTION_LIST* offered = functionList;  // whatever a failed call leaves there is not called
  if (callForeign("C_GetFunctionList", [&] { return getFunctionList(&offered); }) != CKR_OK) {
    sayError({"C_GetFunctionList failed\n"});
    return 1;
  }
  functionList = offered;
  require(p11::C_Initialize, nullptr);
  return CKR_OK;
}

CK_RV TestManager::teardown() {
  if (moduleHandle == nullptr) return CKR_OK;
  report << "teardown test\n";
  const CK_RV result = p11::C_Finalize(nullptr);
  requireResult("C_Finalize", result);
  LoadedModule(moduleHandle).reset();
  moduleHandle = nullptr;
  functionList = nullptr;
  return result;
}

}  // namespace kestrel
