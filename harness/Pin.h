// One PIN.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "harness/Pkcs11.h"

namespace kestrel {

// Holds a PIN of up to 31 bytes in storage of its own that is zero behind the PIN and is wiped when
// it is released, and at the latest when the process ends itself. The negative tests announce 8
// bytes whatever the PIN's length: those are there. Not thread-safe.
class Pin {
 public:
  static constexpr std::size_t maxLength = 31;

  Pin();
  explicit Pin(std::string_view text);
  Pin(const Pin& other);
  Pin& operator=(const Pin& other);
  ~Pin();

  // The bytes as PKCS#11 takes them; the length that goes with them has no terminator in it.
  CK_UTF8CHAR* data() { return bytes_.data(); }
  CK_ULONG length() const { return length_; }

  // Wipes every PIN there is, for a process that ends without releasing them.
  static void wipeAll();

 private:
  void wipe();

  std::array<CK_UTF8CHAR, maxLength + 1> bytes_{};
  std::size_t length_ = 0;
  Pin* previous_ = nullptr;  // all PINs form a list
  Pin* next_;
};

}  // namespace kestrel
