#include "harness/Module.h"

#include <dlfcn.h>

namespace kestrel {

namespace {

// What the module throws while it is loaded or unloaded passes through the loader, which its
// declarations deny: no handler would be there around calls that the compiler knows by name.
void* (*volatile openLibrary)(const char*, int) = dlopen;
int (*volatile closeLibrary)(void*) = dlclose;

}  // namespace

CK_FUNCTION_LIST* functionList = nullptr;

void endAfterModuleException(const char* name) {
  sayError({"kestrel: an exception left ", CallInFlight::owner(name), name, "(): ", whatWasThrown(),
            "\n"});
  endProgram(1);
}

void Unloader::operator()(void* handle) const {
  callForeign("dlclose", [&] { return closeLibrary(handle); });  // its destructors run there
}

LoadedModule loadModule(const char* path) {
  return LoadedModule(callForeign("dlopen", [&] { return openLibrary(path, RTLD_LAZY); }));
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

}  // namespace kestrel
