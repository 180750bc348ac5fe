// The objects of the software token as its callers see them.
#pragma once

#include "token/State.h"

namespace kestrel::token {

// The object of a handle that is valid now: a private one belongs to the user who is logged in, and
// has another handle for the next one.
const Object* findObject(const Session& session, CK_OBJECT_HANDLE handle);

}  // namespace kestrel::token
