// Which tokens are meant, as an operator says it: by a label, or by a "pkcs11:" URI (RFC 7512).
#pragma once

#include <p11-kit/uri.h>

#include <memory>
#include <string>
#include <string_view>

#include "harness/Pkcs11.h"

// Without the padding of a field.
std::string_view trimmed(std::string_view text);

template <std::size_t width>
std::string_view trimmed(const CK_UTF8CHAR (&field)[width]) {
  return trimmed(std::string_view(reinterpret_cast<const char*>(field), width));
}

// A label's blanks at the end do not count. A URI that names an object, a PIN or the file of a
// module is refused.
class TokenPattern {
 public:
  // Throws std::runtime_error, which does not quote it: there may be a PIN in it.
  explicit TokenPattern(const std::string& pattern);

  bool matches(CK_SLOT_ID slot, const CK_TOKEN_INFO& info) const;

  // What only some patterns tell of: the module need not be asked for the others.
  bool tellsSlot() const;
  bool tellsLibrary() const;
  bool matches(const CK_SLOT_INFO& info) const;
  bool matches(const CK_INFO& info) const;

 private:
  struct UriDeleter {
    void operator()(P11KitUri* uri) const { p11_kit_uri_free(uri); }
  };
  std::string label_;
  std::unique_ptr<P11KitUri, UriDeleter> uri_;  // null: the label decides
};
