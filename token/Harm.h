// What the software token does to the process that loaded it, when it is told to.
#pragma once

#include <string>

namespace kestrel::token {

// Does the harm of that name (doc/kestrel-token.7 lists them). Returns false for a name that it
// does not know; true if the process lives on.
bool doHarm(const std::string& name);

}  // namespace kestrel::token
