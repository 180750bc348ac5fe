#include "token/Call.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "token/Harm.h"

namespace kestrel::token {

namespace {

constexpr CK_ULONG maxShown = 64;  // bytes; of more the record has the count

std::string show(CK_ULONG number) {
  char text[32];
  std::snprintf(text, sizeof text, number < 10000 ? "%lu" : "%#lx", number);
  return text;
}

std::string hex(const void* bytes, CK_ULONG count) {
  std::string text;
  for (CK_ULONG i = 0; i < count; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<const CK_BYTE*>(bytes)[i]);
    text += digits;
  }
  return text;
}

std::string textOrHex(const CK_BYTE* bytes, CK_ULONG count) {
  if (!std::all_of(bytes, bytes + count, [](CK_BYTE b) { return b >= ' ' && b <= '~'; })) {
    return hex(bytes, count);
  }
  return std::string("'").append(bytes, bytes + count).append("'");
}

// Of another length there may be less than it says.
bool isKnownSize(const CK_MECHANISM& mechanism) {
  return mechanism.ulParameterLen == sizeof(CK_RSA_PKCS_PSS_PARAMS) ||
         mechanism.ulParameterLen == sizeof(CK_RSA_PKCS_OAEP_PARAMS);
}

const std::string* overrideOf(const std::string& name, const std::string& suffix) {
  const auto& overrides = token().config.settings.values;
  auto found = overrides.find(name + "#" + std::to_string(token().calls[name]) + suffix);
  if (found == overrides.end()) found = overrides.find(name + suffix);
  return found == overrides.end() ? nullptr : &found->second;
}

constexpr CK_ULONG randomAnswers[] = {CKR_OK,       CKR_OK,         CKR_OK, CKR_GENERAL_ERROR,
                                      CKR_NO_EVENT, CKR_PIN_LOCKED, 0x101,  0x80000001,
                                      0x100000000};
constexpr CK_ULONG randomCounts[] = {0,     1,        2,          17,        255,       513, 801,
                                     65536, 0x100001, 0x7fffffff, 1ul << 31, 1ul << 63, ~0ul};

template <std::size_t count>
CK_ULONG pick(const CK_ULONG (&values)[count]) {
  return values[(*token().config.random)() % count];
}

void record(const std::string& name, std::initializer_list<Argument> arguments) {
  const std::string file = token().config.settings.text("log", "");
  if (file.empty()) return;
  std::ofstream log(file, std::ios::app);
  log << name;
  for (const Argument& argument : arguments) log << ' ' << argument.text;
  log << '\n';
}

}  // namespace

bool chance() {
  auto& random = token().config.random;
  if (!random) return false;
  static const unsigned long rarity = 4 + (*random)() % 100;
  return (*random)() % rarity == 0;
}

Argument::Argument(CK_ULONG number) : text(show(number)) {}
Argument::Argument(const void* pointer) : text(pointer == nullptr ? "null" : "&") {}
Argument::Argument(const CK_ULONG* number)
    : text(number == nullptr ? std::string("null") : std::string("&").append(show(*number))) {}

Argument::Argument(const CK_BYTE* bytes, CK_ULONG count)
    : text(bytes == nullptr   ? "null"
           : count > maxShown ? "bytes"
                              : textOrHex(bytes, count)) {
  text.append("[").append(show(count)).append("]");
}

Argument::Argument(const CK_MECHANISM* mechanism) {
  text = mechanism == nullptr ? "null" : "mechanism " + show(mechanism->mechanism);
  if (mechanism == nullptr || mechanism->pParameter == nullptr || !isKnownSize(*mechanism)) return;
  for (CK_ULONG i = 0; i < mechanism->ulParameterLen / sizeof(CK_ULONG); ++i) {
    CK_ULONG number;  // wherever the caller has it
    std::memcpy(&number, static_cast<const CK_BYTE*>(mechanism->pParameter) + i * sizeof number,
                sizeof number);
    text.append(",").append(show(number));
  }
}

Argument::Argument(const CK_ATTRIBUTE* attributes, CK_ULONG count, bool values) {
  if (attributes == nullptr) text = "null";
  for (CK_ULONG i = 0; attributes != nullptr && i < count; ++i) {
    const CK_ATTRIBUTE& a = attributes[i];
    text.append(i == 0 ? "{" : ",{").append(show(a.type)).append(" ");
    const bool shown = values && a.ulValueLen <= maxShown;
    text += a.pValue == nullptr ? "null" : shown ? hex(a.pValue, a.ulValueLen) : "&";
    text.append(" ").append(show(a.ulValueLen)).append("}");
  }
}

Call::Call(const char* name, std::initializer_list<Argument> arguments,
           std::vector<CK_ULONG*> outputs, bool early)
    : lock_(token::token().mutex), name_(name), outputs_(std::move(outputs)) {
  if (token::token().initialized && token::token().process != getpid()) finalize();
  ++token::token().calls[name_];
  record(name_, arguments);
  if (const std::string* value = overrideOf(name_, "")) {
    if (!doHarm(*value)) answer(std::stoul(*value, nullptr, 0));
  } else if (chance()) {
    answer(pick(randomAnswers));
  } else if (!early && !token::token().initialized) {
    answer(CKR_CRYPTOKI_NOT_INITIALIZED);
  }
}

Call::~Call() {
  const std::string* value = overrideOf(name_, ".out");
  for (CK_ULONG* output : outputs_) {
    if (output == nullptr) continue;
    if (value != nullptr) *output = std::strtoul(value->c_str(), nullptr, 0);
    if (chance()) *output = pick(randomCounts);
  }
}

CK_RV Call::answer(CK_RV value) {
  answered_ = true;
  return result = value;
}

Slot* Call::slot(CK_SLOT_ID id) {
  if (answered_) return nullptr;
  auto& slots = token::token().config.slots;
  const auto found = std::ranges::find(slots, id, &Slot::id);
  if (found != slots.end()) return &*found;
  answer(CKR_SLOT_ID_INVALID);
  return nullptr;
}

Slot* Call::token(CK_SLOT_ID id) {
  Slot* const found = slot(id);
  if (found == nullptr || !found->settings.has("empty")) return found;
  answer(CKR_TOKEN_NOT_PRESENT);
  return nullptr;
}

Session* Call::session(CK_SESSION_HANDLE handle) {
  if (answered_) return nullptr;
  const auto found = token::token().sessions.find(handle);
  if (found != token::token().sessions.end()) return &found->second;
  answer(CKR_SESSION_HANDLE_INVALID);
  return nullptr;
}

void Call::scramble(void* record, std::size_t size) const {
  if (!chance()) return;
  const std::string noise =
      token::token().config.random->operator()() % 2 == 0 ? "\xff" : "%n\x1b[";
  for (std::size_t i = 0; i < size; ++i) static_cast<char*>(record)[i] = noise[i % noise.size()];
}

}  // namespace kestrel::token
