#include "shim/TraceText.h"

#include <algorithm>
#include <charconv>
#include <iterator>

TraceText& TraceText::operator<<(std::string_view text) {
  const std::size_t length = std::min(text.size(), text_.size() - length_);
  std::copy_n(text.begin(), length, text_.begin() + static_cast<std::ptrdiff_t>(length_));
  length_ += length;
  return *this;
}

TraceText& TraceText::operator<<(CK_ULONG number) {
  if (number == ~CK_ULONG{0}) return *this << "-1";
  char digits[24];
  return *this << std::string_view(digits, std::to_chars(digits, std::end(digits), number).ptr);
}

TraceText& TraceText::hexadecimal(CK_ULONG number) {
  char digits[24];
  return *this << "0x"
               << std::string_view(digits, std::to_chars(digits, std::end(digits), number, 16).ptr);
}

TraceText& TraceText::hexadecimal(const CK_BYTE* bytes, CK_ULONG length) {
  constexpr std::string_view digits = "0123456789abcdef";
  for (CK_ULONG i = 0; i < length; ++i) {
    *this << digits.substr(bytes[i] >> 4, 1) << digits.substr(bytes[i] & 15, 1);
  }
  return *this;
}
