// What came with this program: where the other programs and the modules of kestrel are.
#pragma once

#include <filesystem>

#include "common/ModuleNames.h"

namespace kestrel {

// The software token that came with this program. Throws std::runtime_error if there is none.
NamedModule softwareToken();

// The module that goes between kestrel and another. Throws std::runtime_error if there is none.
std::filesystem::path shimModule();

// The kestrel beside this program, else the one in PATH. Throws std::runtime_error if there is
// none.
std::filesystem::path findKestrel();

}  // namespace kestrel
