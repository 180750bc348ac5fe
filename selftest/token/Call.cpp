#include "selftest/token/Call.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace {

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

// Deeper and deeper, in a way that no compiler turns into a loop or warns of.
int overflow(volatile int* above);
int (*volatile deeper)(volatile int*) = overflow;

int overflow(volatile int* above) {
  volatile int here[1024] = {};
  here[0] = *above + 1;
  return deeper(here) + here[0];
}

CK_RV answer(const std::string& value) {
  if (value == "segv") raise(SIGSEGV);
  if (value == "abort") std::abort();
  if (value == "throw") throw std::runtime_error("thrown by the token");
  if (value == "hang") {
    for (;;) pause();
  }
  if (value == "overflow") {
    volatile int start = 0;
    return static_cast<CK_RV>(overflow(&start));
  }
  return std::stoul(value, nullptr, 0);
}

const std::string* overrideOf(const std::string& name, const std::string& suffix) {
  const auto& overrides = token().config.overrides;
  auto found = overrides.find(name + "#" + std::to_string(token().calls[name]) + suffix);
  if (found == overrides.end()) found = overrides.find(name + suffix);
  return found == overrides.end() ? nullptr : &found->second;
}

void record(const std::string& name, std::initializer_list<Argument> arguments) {
  if (token().config.log.empty()) return;
  std::ofstream log(token().config.log, std::ios::app);
  log << name;
  for (const Argument& argument : arguments) log << ' ' << argument.text;
  log << '\n';
}

}  // namespace

Argument::Argument(CK_ULONG number) : text(show(number)) {}
Argument::Argument(const void* pointer) : text(pointer == nullptr ? "null" : "&") {}
Argument::Argument(const CK_ULONG* number)
    : text(number == nullptr ? std::string("null") : std::string("&").append(show(*number))) {}

Argument::Argument(const CK_BYTE* bytes, CK_ULONG count)
    : text(bytes == nullptr ? "null"
           : count > 64     ? "bytes"
                            : textOrHex(bytes, count)) {
  text.append("[").append(show(count)).append("]");
}

Argument::Argument(const CK_MECHANISM* mechanism) {
  if (mechanism == nullptr) {
    text = "null";
    return;
  }
  text = "mechanism " + show(mechanism->mechanism);
  for (CK_ULONG i = 0; i < mechanism->ulParameterLen / sizeof(CK_ULONG); ++i) {
    text.append(",").append(show(static_cast<const CK_ULONG*>(mechanism->pParameter)[i]));
  }
}

Argument::Argument(const CK_ATTRIBUTE* attributes, CK_ULONG count, bool values) {
  for (CK_ULONG i = 0; i < count; ++i) {
    const CK_ATTRIBUTE& a = attributes[i];
    text.append(i == 0 ? "{" : ",{").append(show(a.type)).append(" ");
    text += a.pValue == nullptr ? "null" : values ? hex(a.pValue, a.ulValueLen) : "&";
    text.append(" ").append(show(a.ulValueLen)).append("}");
  }
}

Token& token() {
  static Token* const instance = new Token;  // outlives the threads that call it
  return *instance;
}

CK_RV enter(const char* name, std::initializer_list<Argument> arguments,
            const std::vector<CK_ULONG*>& outputs, const Body& body, bool early) {
  const std::lock_guard lock(token().mutex);
  ++token().calls[name];
  record(name, arguments);
  if (const std::string* value = overrideOf(name, "")) return answer(*value);
  CK_RV result = CKR_CRYPTOKI_NOT_INITIALIZED;
  if (early || token().initialized) result = body();
  if (const std::string* value = overrideOf(name, ".out")) {
    for (CK_ULONG* output : outputs) {
      if (output != nullptr) *output = answer(*value);
    }
  }
  return result;
}

CK_RV withSession(const char* name, CK_SESSION_HANDLE handle,
                  std::initializer_list<Argument> arguments, const std::vector<CK_ULONG*>& outputs,
                  const std::function<CK_RV(Session&)>& body) {
  return enter(name, arguments, outputs, [&]() -> CK_RV {
    const auto found = token().sessions.find(handle);
    return found == token().sessions.end() ? CKR_SESSION_HANDLE_INVALID : body(found->second);
  });
}
