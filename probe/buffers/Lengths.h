// What a function that answers with bytes or a list does with the room that it is given.
#pragma once

#include "probe/Check.h"

namespace kestrel::probe {

void addLengths(Plan& plan);

}  // namespace kestrel::probe
