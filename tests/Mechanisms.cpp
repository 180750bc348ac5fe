#include "tests/Mechanisms.h"

#include <algorithm>

const SignatureMechanism* findSignatureMechanism(CK_MECHANISM_TYPE type) {
  const auto* row = std::ranges::find(signatureMechanisms, type, &SignatureMechanism::type);
  return row == signatureMechanisms.end() ? nullptr : row;
}
