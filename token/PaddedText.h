// Texts of PKCS#11 records as they go out: padded with blanks, without a terminator.
#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "harness/Pkcs11.h"

namespace kestrel::token {

template <std::size_t width>
void pad(CK_UTF8CHAR (&field)[width], const std::string& text) {
  std::memset(field, ' ', width);
  std::memcpy(field, text.data(), std::min(width, text.size()));
}

}  // namespace kestrel::token
