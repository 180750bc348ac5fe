// The results as a table of Markdown: a row a test, a column a module, as in the README.
#pragma once

#include <string>

#include "run/results/Results.h"

namespace kestrel::run {

std::string toMarkdown(const Results& results);

}  // namespace kestrel::run
