// Which token is meant.
#pragma once

#include <optional>
#include <string>

#include "harness/Pkcs11.h"

namespace kestrel::probe {

class TokenChoice {
 public:
  TokenChoice() = default;
  explicit TokenChoice(const std::optional<std::string>& pattern) : pattern_(pattern) {}
  bool isMeant(CK_SLOT_ID slot, const CK_TOKEN_INFO& info) const;

 private:
  std::optional<std::string> pattern_;
};

// A field of blank-padded text without the padding.
std::string trimmed(const CK_UTF8CHAR* field, std::size_t width);

}  // namespace kestrel::probe
