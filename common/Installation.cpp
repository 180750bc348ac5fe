#include "common/Installation.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace kestrel {

namespace {

namespace fs = std::filesystem;

fs::path ownFolder() {
  return fs::read_symlink("/proc/self/exe").parent_path();
}

// A module that came with this program, by its folder in a build; empty if it is not there.
fs::path ownModule(const char* buildFolder, const char* file) {
  for (const char* folder : {buildFolder, INSTALLED_MODULES}) {
    const fs::path path = ownFolder() / folder / file;
    if (fs::exists(path)) return fs::canonical(path);
  }
  return {};
}

bool isProgram(const fs::path& path) {
  return fs::is_regular_file(path) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

NamedModule softwareToken() {
  const fs::path path = ownModule("token", "kestrel-token.so");
  if (path.empty()) {
    throw std::runtime_error("no module was named, and the software token is not installed");
  }
  return nameModules({path.native()}).front();
}

fs::path shimModule() {
  fs::path path = ownModule("shim", "kestrel-shim.so");
  if (path.empty()) throw std::runtime_error("kestrel-shim.so is not installed");
  return path;
}

fs::path findKestrel() {
  fs::path beside = ownFolder() / "kestrel";
  if (isProgram(beside)) return beside;
  const char* const path = std::getenv("PATH");
  for (std::string rest = path == nullptr ? "" : path; !rest.empty();) {
    const std::size_t end = std::min(rest.find(':'), rest.size());
    const fs::path candidate = fs::path(rest.substr(0, end)) / "kestrel";
    if (isProgram(candidate)) return fs::absolute(candidate);
    rest.erase(0, end + 1);
  }
  throw std::runtime_error("no kestrel beside this program, nor in PATH: see --kestrel");
}

}  // namespace kestrel
