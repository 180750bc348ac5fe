#include "harness/Module.h"

#include <dlfcn.h>

#include <exception>

CK_FUNCTION_LIST* functionList = nullptr;

void endAfterModuleException(const char* name) {
  const char* what = "not a std::exception";
  try {
    throw;
  } catch (const std::exception& exception) {
    what = exception.what();
  } catch (...) {
  }
  sayError({"kestrel: an exception left ", CallInFlight::owner(name), name, "(): ", what, "\n"});
  endProgram(1);
}

void Unloader::operator()(void* handle) const {
  callForeign("dlclose", [&] { return dlclose(handle); });  // its destructors run there
}

LoadedModule loadModule(const char* path) {
  return LoadedModule(callForeign("dlopen", [&] { return dlopen(path, RTLD_LAZY); }));
}

CK_C_GetFunctionList findEntryPoint(const LoadedModule& module) {
  void* const symbol =
      callForeign("dlsym", [&] { return dlsym(module.get(), "C_GetFunctionList"); });
  return reinterpret_cast<CK_C_GetFunctionList>(symbol);
}

const char* loaderError() {
  const char* text = dlerror();
  return text == nullptr ? "unknown error" : text;
}
