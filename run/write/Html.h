// The results as one HTML page that needs nothing from elsewhere: the table of tests and modules in
// colours, and every report to unfold.
#pragma once

#include <string>

#include "run/results/Results.h"

namespace kestrel::run {

std::string toHtml(const Results& results);

}  // namespace kestrel::run
