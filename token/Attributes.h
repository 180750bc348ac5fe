// What the objects of the software token say of themselves.
#pragma once

#include "token/State.h"

namespace kestrel::token {

// CKR_ATTRIBUTE_SENSITIVE for what stays in the token, CKR_ATTRIBUTE_TYPE_INVALID for what such an
// object has not.
CK_RV attributeOf(const Object& object, CK_ATTRIBUTE_TYPE type, std::string& value);

}  // namespace kestrel::token
