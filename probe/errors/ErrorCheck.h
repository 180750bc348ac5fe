// What the checks of errors have in common.
#pragma once

#include <string_view>

#include "probe/Kits.h"

namespace kestrel::probe {

// "errors/C_Sign/not-begun" for C_Sign and "not-begun", with the function's own clause. What is
// returned may be changed until the next one is added.
Check& addError(Plan& plan, FunctionId function, std::string_view name, const Expected& expected,
                std::function<void(Bench&)> run);

// After an error an operation that worked before it can be done all the same.
void requireWorks(Bench& bench, const Kit& kit);

}  // namespace kestrel::probe
