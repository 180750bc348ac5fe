// Which modules are run, and under which names.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kestrel {

struct NamedModule {
  std::string name;            // of a file: tells it from the others, and holds no '/'
  std::filesystem::path path;  // the real one
  std::string typed = {};      // the path as it was given
  std::string missing = {};    // why there is no such file; empty where there is
};

// The modules of arguments "[NAME=]MODULE". Where no name is given it is the file's, without "lib"
// and ".so"; files of the same name are told apart by a folder in which their paths differ, or by a
// number. Throws std::runtime_error for a name given twice, and for a file that is not there unless
// others are.
std::vector<NamedModule> nameModules(const std::vector<std::string>& arguments);

}  // namespace kestrel
