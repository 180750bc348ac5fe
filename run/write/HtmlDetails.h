// All that there is to know of each test, to unfold.
#pragma once

#include <cstddef>

#include "run/results/Results.h"
#include "run/write/HtmlParts.h"

namespace kestrel::run::html {

// Adds a section with the tests of the module of this number.
void addModule(Node body, const Results& results, std::size_t index);

}  // namespace kestrel::run::html
