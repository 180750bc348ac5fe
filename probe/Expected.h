// Whether a return value is what a call had to give.
#pragma once

#include <array>
#include <initializer_list>
#include <span>
#include <string_view>

#include "harness/Pkcs11.h"
#include "probe/Verdict.h"

namespace kestrel::probe {

// The values that a situation permits. The first is the one that names the mistake.
class Expected {
 public:
  constexpr Expected() = default;
  constexpr Expected(std::initializer_list<CK_RV> values) {
    for (const CK_RV value : values) values_[count_++] = value;  // too many do not compile
  }

  constexpr const CK_RV* begin() const { return values_.data(); }
  constexpr const CK_RV* end() const { return values_.data() + count_; }
  constexpr std::size_t size() const { return count_; }
  constexpr CK_RV preferred() const { return values_[0]; }
  constexpr bool holds(CK_RV value) const {
    for (const CK_RV each : *this) {
      if (each == value) return true;
    }
    return false;
  }

 private:
  std::array<CK_RV, 8> values_{};
  std::size_t count_ = 0;
};

// ok for the preferred value, vague for another that is permitted, absent for a function that the
// module does not have, deviates for the rest. Three values that say nothing of the cause are
// permitted in every function that can fail, and vague where a failure was due.
Verdict judge(CK_RV value, const Expected& expected);

}  // namespace kestrel::probe
