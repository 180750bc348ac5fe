// The library as a whole: how it is initialised, and what ends it.
#pragma once

#include "probe/Check.h"

namespace kestrel::probe {

void addLibraryErrors(Plan& plan);

}  // namespace kestrel::probe
