// A line of the shim's in the making; what does not fit is left out.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "harness/Pkcs11.h"

class TraceText {
 public:
  TraceText& operator<<(std::string_view text);
  TraceText& operator<<(CK_ULONG number);
  TraceText& hexadecimal(CK_ULONG number);
  TraceText& hexadecimal(const CK_BYTE* bytes, CK_ULONG length);
  std::string_view view() const { return {text_.data(), length_}; }

 private:
  std::array<char, 1024> text_;
  std::size_t length_ = 0;
};
