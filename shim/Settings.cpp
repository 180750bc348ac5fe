#include "shim/Settings.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "shim/Names.h"

namespace {

// A pattern that begins so, in letters of any size, is a URI.
constexpr std::string_view scheme = "pkcs11:";

// What p11-kit asks of a URI that tells nothing of it matches this too.
constexpr CK_BYTE noVersion = 254;

[[noreturn]] void reject(std::string_view what, std::string_view value) {
  throw std::runtime_error(std::string(what).append(" '").append(value).append("'"));
}

template <typename Take>
void forEachItem(std::string_view list, Take take) {
  for (;;) {
    const std::size_t comma = std::min(list.find(','), list.size());
    take(list.substr(0, comma));
    if (comma == list.size()) return;
    list.remove_prefix(comma + 1);
  }
}

CK_MECHANISM_TYPE mechanismType(std::string_view text) {
  if (text.starts_with("CKM_")) {
    if (const auto value = valueOf(text)) return *value;
  }
  const bool hexadecimal = text.starts_with("0x");
  const std::string_view digits = text.substr(hexadecimal ? 2 : 0);
  CK_MECHANISM_TYPE type = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), type, hexadecimal ? 16 : 10);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    reject("unknown mechanism", text);
  }
  return type;
}

MechanismList readMechanisms(std::string_view list) {
  MechanismList mechanisms;
  forEachItem(list, [&](std::string_view item) {
    if (item == "signable") {
      mechanisms.signable = true;
    } else if (item == "multipart") {
      mechanisms.multipart = true;
    } else {
      mechanisms.types.push_back(mechanismType(item));
    }
  });
  return mechanisms;
}

WaiverSet readWaivers(std::string_view list) {
  WaiverSet waived;
  forEachItem(list, [&](std::string_view item) {
    const auto* const row = std::ranges::find(waiverRows, item, &WaiverRow::name);
    if (item == "all") {
      waived.set();
    } else if (row == waiverRows.end()) {
      reject("unknown waiver", item);
    } else {
      waived.set(static_cast<std::size_t>(row->waiver));
    }
  });
  return waived;
}

// Without the padding of a field.
std::string_view trimmed(std::string_view text) {
  return text.substr(0, text.find_last_not_of(std::string_view(" \0", 2)) + 1);
}

template <std::size_t width>
std::string_view trimmed(const CK_UTF8CHAR (&field)[width]) {
  return trimmed(std::string_view(reinterpret_cast<const char*>(field), width));
}

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

Settings readSettings() {
  Settings settings;
  settings.module = std::getenv("KESTREL_SHIM_MODULE");
  settings.used = std::getenv("KESTREL_SHIM_USED");
  settings.trace = std::getenv("KESTREL_SHIM_TRACE");
  if (const char* value = std::getenv("KESTREL_SHIM_TOKEN")) settings.token.emplace(value);
  if (const char* value = std::getenv("KESTREL_SHIM_MECHANISMS")) {
    settings.mechanisms = readMechanisms(value);
  }
  if (const char* value = std::getenv("KESTREL_SHIM_WAIVE")) settings.waived = readWaivers(value);
  return settings;
}
