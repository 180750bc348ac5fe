// A shim as the tests load it, before a stand-in (StandIn.cpp) whose functions they fill in.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "harness/Pkcs11.h"

template <typename Function>
Function* find(void* library, const char* name) {
  return reinterpret_cast<Function*>(dlsym(library, name));
}

inline CK_FUNCTION_LIST& listOf(void* library) {
  CK_FUNCTION_LIST* list = nullptr;
  find<CK_RV(CK_FUNCTION_LIST**)>(library, "C_GetFunctionList")(&list);
  return *list;
}

// With the settings given, as in {"TOKEN", "own"}. It is unloaded with its owner.
class Shimmed {
 public:
  Shimmed(const char* module, const std::map<std::string, std::string>& settings) {
    setenv("KESTREL_SHIM_MODULE", module, 1);
    for (const char* name : {"TOKEN", "MECHANISMS", "WAIVE", "TRACE", "USED"}) {
      const std::string variable = std::string("KESTREL_SHIM_") + name;
      unsetenv(variable.c_str());
      if (settings.contains(name)) setenv(variable.c_str(), settings.at(name).c_str(), 1);
    }
    shim_ = dlopen(SHIM, RTLD_NOW | RTLD_LOCAL);
    behind_ = dlopen(module, RTLD_NOW | RTLD_NOLOAD);
    if (behind_ != nullptr) dlclose(behind_);  // the shim has it
  }
  ~Shimmed() { dlclose(shim_); }
  Shimmed(const Shimmed&) = delete;
  Shimmed& operator=(const Shimmed&) = delete;

  CK_FUNCTION_LIST& list() { return listOf(shim_); }
  CK_FUNCTION_LIST& behind() { return *find<CK_FUNCTION_LIST>(behind_, "functions"); }
  void* module() { return behind_; }

 private:
  void *shim_ = nullptr, *behind_ = nullptr;
};

// A file's name, and the file's end.
struct TemporaryFile {
  std::string path = testing::TempDir() + "kestrel-shim." + std::to_string(getpid());
  ~TemporaryFile() { std::remove(path.c_str()); }

  std::vector<std::string> lines() const {
    std::vector<std::string> result;
    std::ifstream stream(path);
    for (std::string line; std::getline(stream, line);) result.push_back(line);
    return result;
  }
};
