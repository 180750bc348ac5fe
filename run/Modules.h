// Which modules are run, under which names, and where the programs and the software token are.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

struct NamedModule {
  std::string name;            // of a file: tells it from the others, and holds no '/'
  std::filesystem::path path;  // the real one
};

// The modules of arguments "[NAME=]MODULE". Where no name is given it is the file's, without "lib"
// and ".so"; files of the same name are told apart by a folder in which their paths differ, or by a
// number. Throws std::runtime_error for a file that is not there and for a name given twice.
std::vector<NamedModule> nameModules(const std::vector<std::string>& arguments);

// The software token that came with this program. Throws std::runtime_error if there is none.
NamedModule softwareToken();

// The module that goes between kestrel and another. Throws std::runtime_error if there is none.
std::filesystem::path shimModule();

// The kestrel beside this program, else the one in PATH. Throws std::runtime_error if there is
// none.
std::filesystem::path findKestrel();
