#include "shim/TokenPattern.h"

#include <strings.h>

#include <algorithm>
#include <new>
#include <stdexcept>

namespace {

// A pattern that begins so, in letters of any size, is a URI.
constexpr std::string_view scheme = "pkcs11:";

// What p11-kit asks of a URI that tells nothing of it matches this too.
constexpr CK_BYTE noVersion = 254;

// Does a URI say more than which token: an object, a PIN, the file of a module?
bool saysMore(P11KitUri* uri) {
  CK_ULONG attributes = 0;
  p11_kit_uri_get_attributes(uri, &attributes);
  if (attributes != 0 || p11_kit_uri_any_unrecognized(uri) != 0) return true;
  const char* const others[] = {p11_kit_uri_get_pin_value(uri), p11_kit_uri_get_pin_source(uri),
                                p11_kit_uri_get_module_name(uri), p11_kit_uri_get_module_path(uri)};
  return std::ranges::any_of(others, [](const char* value) { return value != nullptr; });
}

}  // namespace

std::string_view trimmed(std::string_view text) {
  return text.substr(0, text.find_last_not_of(std::string_view(" \0", 2)) + 1);
}

TokenPattern::TokenPattern(const std::string& pattern) : label_(trimmed(pattern)) {
  if (pattern.empty()) throw std::runtime_error("the token pattern is empty");
  if (strncasecmp(pattern.c_str(), scheme.data(), scheme.size()) != 0) return;
  uri_.reset(p11_kit_uri_new());
  if (uri_ == nullptr) throw std::bad_alloc();
  const std::string uri = std::string(scheme) + pattern.substr(scheme.size());
  const int code = p11_kit_uri_parse(uri.c_str(), P11_KIT_URI_FOR_ANY, uri_.get());
  if (code != P11_KIT_URI_OK) {
    throw std::runtime_error(std::string("the token's URI: ") + p11_kit_uri_message(code));
  }
  if (saysMore(uri_.get())) throw std::runtime_error("the token's URI says more than which token");
}

bool TokenPattern::matches(CK_SLOT_ID slot, const CK_TOKEN_INFO& info) const {
  if (uri_ == nullptr) return trimmed(info.label) == label_;
  const CK_SLOT_ID wanted = p11_kit_uri_get_slot_id(uri_.get());
  return p11_kit_uri_match_token_info(uri_.get(), &info) == 1 &&
         (wanted == ~CK_SLOT_ID{0} || wanted == slot);
}

bool TokenPattern::matches(const CK_SLOT_INFO& info) const {
  return uri_ == nullptr || p11_kit_uri_match_slot_info(uri_.get(), &info) == 1;
}

bool TokenPattern::matches(const CK_INFO& info) const {
  return uri_ == nullptr || p11_kit_uri_match_module_info(uri_.get(), &info) == 1;
}

bool TokenPattern::tellsSlot() const {
  return !matches(CK_SLOT_INFO{});
}

bool TokenPattern::tellsLibrary() const {
  CK_INFO none{};
  none.libraryVersion = {noVersion, noVersion};
  return !matches(none);
}
