// One PIN.
#pragma once

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "harness/Pkcs11.h"

// Holds a PIN of up to 31 bytes in storage of its own that is zero behind the PIN and is wiped when
// it is released. The negative tests announce 8 bytes whatever the PIN's length: those are there.
class Pin {
 public:
  static constexpr std::size_t maxLength = 31;

  Pin() = default;
  explicit Pin(std::string_view text) : length_(std::min(text.size(), maxLength)) {
    std::copy_n(text.begin(), length_, bytes_.begin());
  }
  Pin(const Pin&) = default;
  Pin& operator=(const Pin&) = default;
  ~Pin() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

  // The bytes as PKCS#11 takes them; the length that goes with them has no terminator in it.
  CK_UTF8CHAR* data() { return bytes_.data(); }
  CK_ULONG length() const { return length_; }

 private:
  std::array<CK_UTF8CHAR, maxLength + 1> bytes_{};
  std::size_t length_ = 0;
};
