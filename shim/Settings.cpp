#include "shim/Settings.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "shim/Names.h"

namespace {

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
    } else if (item.starts_with('-')) {
      mechanisms.without.push_back(mechanismType(item.substr(1)));
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

}  // namespace

Settings readSettings() {
  Settings settings;
  settings.module = std::getenv("KESTREL_SHIM_MODULE");
  settings.used = std::getenv("KESTREL_SHIM_USED");
  settings.trace = std::getenv("KESTREL_SHIM_TRACE");
  settings.initArguments = std::getenv("KESTREL_SHIM_INIT_ARGS");
  if (const char* value = std::getenv("KESTREL_SHIM_TOKEN")) settings.token.emplace(value);
  if (const char* value = std::getenv("KESTREL_SHIM_MECHANISMS")) {
    settings.mechanisms = readMechanisms(value);
  }
  if (const char* value = std::getenv("KESTREL_SHIM_WAIVE")) settings.waived = readWaivers(value);
  return settings;
}
