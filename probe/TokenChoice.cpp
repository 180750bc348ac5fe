#include "probe/TokenChoice.h"

#include <string_view>

namespace kestrel::probe {

std::string trimmed(const CK_UTF8CHAR* field, std::size_t width) {
  const std::string_view text(reinterpret_cast<const char*>(field), width);
  return std::string(text.substr(0, text.find_last_not_of(std::string_view(" \0", 2)) + 1));
}

bool TokenChoice::isMeant(CK_SLOT_ID, const CK_TOKEN_INFO& info) const {
  return !pattern_ || trimmed(info.label, sizeof info.label) == *pattern_;
}

}  // namespace kestrel::probe
