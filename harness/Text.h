// Text fields of PKCS#11 records: fixed width, blank-padded, without a terminator.
#pragma once

#include <cstddef>
#include <string_view>

#include "harness/Pkcs11.h"

namespace kestrel {

// A field at its full width, padding included.
template <std::size_t width>
std::string_view fullText(const CK_UTF8CHAR (&field)[width]) {
  return {reinterpret_cast<const char*>(field), width};
}

// The slot description up to the first zero byte of the record. A description has no terminator of
// its own, so the text runs on into the manufacturer and the flags; operators diff this line, and
// it never leaves the record.
inline std::string_view runOnDescription(const CK_SLOT_INFO& info) {
  const std::string_view record(reinterpret_cast<const char*>(&info), sizeof info);
  static_assert(offsetof(CK_SLOT_INFO, slotDescription) == 0);
  return record.substr(0, record.find('\0'));
}

}  // namespace kestrel
