// What an attacker who may call the token's functions tries on its keys.
#pragma once

#include "probe/Kits.h"
#include "probe/Templates.h"

namespace kestrel::probe {

// "secrets/copy-to-extractable" for "copy-to-extractable".
Check& addAttack(Plan& plan, std::string_view name, FunctionId function, const Expected& expected,
                 std::function<void(Bench&)> run);

// The value of every secret key under attack: whoever has it has won.
inline constexpr View secretValue = "the secret of 16";
static_assert(secretValue.size() == 16);

// An AES key of that value that may encrypt, with these attributes. The check is not applicable
// where the token takes none.
CK_OBJECT_HANDLE makeSecret(Bench& bench, bool sensitive, bool extractable,
                            const std::function<void(Template&)>& more = {});

// The values by which a token may say that an attribute cannot be so.
inline constexpr Expected refusals{CKR_ATTRIBUTE_READ_ONLY,     CKR_TEMPLATE_INCONSISTENT,
                                   CKR_ATTRIBUTE_VALUE_INVALID, CKR_ATTRIBUTE_TYPE_INVALID,
                                   CKR_ACTION_PROHIBITED,       CKR_USER_NOT_LOGGED_IN};

void addAttributeAttacks(Plan& plan);
void addWrappingAttacks(Plan& plan);
void addUseAttacks(Plan& plan);

}  // namespace kestrel::probe
