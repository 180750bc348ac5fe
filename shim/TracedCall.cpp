#include "shim/TracedCall.h"

#include <algorithm>
#include <atomic>
#include <string_view>
#include <utility>

#include "shim/CallersMemory.h"
#include "shim/Names.h"
#include "shim/TraceText.h"

namespace {

constexpr CK_ULONG maxBytes = TracedBytes().size();  // of data that are shown

// Bytes of a mechanism's parameter that are shown: an initialisation vector. Longer ones are
// structures, with addresses and with gaps that nobody has filled.
constexpr CK_ULONG maxParameter = 16;

// What is not larger is no secret.
constexpr CK_ULONG maxHarmless = CK_ULONG{1} << 20;

// Attributes that tell which object is meant; the values of others may be secrets.
constexpr CK_ATTRIBUTE_TYPE shownAttributes[] = {CKA_CLASS, CKA_ID, CKA_LABEL};

bool isShown(CK_ATTRIBUTE_TYPE type) {
  return std::ranges::find(shownAttributes, type) != std::end(shownAttributes);
}

void showValue(TraceText& text, std::string_view prefix, CK_ULONG value) {
  const std::string_view name = nameOf(prefix, value);
  if (name.empty()) {
    text.hexadecimal(value);
  } else {
    text << name;
  }
}

void showNumber(TraceText& text, std::string_view word, CK_ULONG number) {
  if (word == "flags") {
    text.hexadecimal(number);
  } else if (word == "type") {
    showValue(text, "CKM_", number);
  } else if (word == "user") {
    showValue(text, "CKU_", number);
  } else {
    text << number;
  }
}

void showAddress(TraceText& text, const void* address) {
  text << (address == nullptr ? "null" : "&");
}

// What has changed since `before`, if that is given, or is zeros.
void showBytes(TraceText& text, const void* address, CK_ULONG length,
               const TracedBytes* before = nullptr) {
  TracedBytes bytes{};
  length = std::min(length, maxBytes);
  if (length == 0 && address != nullptr) return;
  if (!readMemory(address, bytes.data(), length)) return showAddress(text, address);
  const bool isLeft = before != nullptr && bytes != TracedBytes{} &&
                      std::equal(bytes.begin(), bytes.begin() + length, before->begin());
  if (!isLeft) text.hexadecimal(bytes.data(), length);
}

void showParameter(TraceText& text, const CK_MECHANISM& mechanism) {
  const CK_ULONG length = mechanism.ulParameterLen;
  if (length == sizeof(CK_RSA_PKCS_PSS_PARAMS) &&
      nameOf("CKM_", mechanism.mechanism).ends_with("RSA_PKCS_PSS")) {
    const auto pss = valueAt<CK_RSA_PKCS_PSS_PARAMS>(mechanism.pParameter);
    if (!pss) return;
    showValue(text << "hash=", "CKM_", pss->hashAlg);
    text << " mgf=" << pss->mgf << " salt=" << pss->sLen;
  } else if (mechanism.pParameter != nullptr && length <= maxParameter) {
    showBytes(text, mechanism.pParameter, length);
  }
}

void showMechanism(TraceText& text, const void* address) {
  const auto mechanism = valueAt<CK_MECHANISM>(address);
  if (!mechanism) return showAddress(text, address);
  showValue(text, "CKM_", mechanism->mechanism);
  if (mechanism->ulParameterLen == 0) return;
  showParameter(text << "(", *mechanism);
  text << "[" << mechanism->ulParameterLen << "])";
}

bool readTemplate(const TracedItem& item, TracedTemplate& copy) {
  const std::size_t count = std::min<std::size_t>(item.length->number, copy.attributes.size());
  if (!readMemory(item.argument.pointer, copy.attributes.data(), count * sizeof(CK_ATTRIBUTE))) {
    return false;
  }
  copy.count = count;
  return true;
}

// Keeps what stands in the rooms that are to be filled and shown: a module that passes and writes
// nothing leaves it there.
void readRooms(TracedTemplate& asked) {
  for (std::size_t i = 0; i < asked.count; ++i) {
    const CK_ATTRIBUTE& one = asked.attributes[i];
    asked.values[i] = {};
    if (!isShown(one.type)) continue;
    readMemory(one.pValue, asked.values[i].data(), std::min(one.ulValueLen, maxBytes));
  }
}

// Types, and with `show` what is said of an attribute. No template is an empty one.
template <typename Show>
void showTemplate(TraceText& text, const TracedTemplate& copy, CK_ULONG count, Show show) {
  text << "{";
  for (const CK_ATTRIBUTE& one : copy.view()) {
    showValue(text << (&one == copy.view().data() ? "" : " "), "CKA_", one.type);
    show(one);
  }
  text << "}[" << count << "]";
}

// Before the call, be it to search for or to make something, or to be filled.
void showTemplateGiven(TraceText& text, const TracedItem& item) {
  TracedTemplate given;
  if (!readTemplate(item, given) && item.argument.pointer != nullptr) {
    text << "&[" << item.length->number << "]";
    return;
  }
  showTemplate(text, given, item.length->number, [&](const CK_ATTRIBUTE& one) {
    text << (one.pValue == nullptr ? "=null" : "=");
    if (one.pValue == nullptr) return;
    if (!item.isAsked && isShown(one.type)) {
      showBytes(text, one.pValue, one.ulValueLen);
    }
    text << "[" << one.ulValueLen << "]";
  });
}

// Is a number, of which nobody knows whether the module has written it, perhaps the caller's own?
bool mayBeLeft(CK_ULONG before, CK_ULONG now) {
  return now == before && now > maxHarmless;
}

// What came back. Values are read from where the caller has them: one that is said to be longer
// than its room is not shown.
void showTemplateFilled(TraceText& text, const TracedItem& item, const TracedTemplate& asked,
                        bool passed) {
  TracedTemplate filled;
  if (!readTemplate(item, filled)) return;
  filled.count = std::min(filled.count, asked.count);
  std::size_t index = 0;
  showTemplate(text << " " << item.word << "=", filled, item.length->number, [&](const auto& one) {
    const CK_ATTRIBUTE& room = asked.attributes.at(index);
    const TracedBytes& before = asked.values.at(index++);
    text << (room.pValue == nullptr ? "=null" : "=");
    if (passed && room.pValue != nullptr && one.ulValueLen <= room.ulValueLen &&
        isShown(one.type)) {
      showBytes(text, room.pValue, one.ulValueLen, &before);
    }
    const bool known = room.pValue != nullptr || !mayBeLeft(room.ulValueLen, one.ulValueLen);
    if (known) text << "[" << one.ulValueLen << "]";
  });
}

// The room for what a number will tell the size of; without a buffer there is none.
void showRoom(TraceText& text, const TracedItem& item) {
  const auto room = item.buffer == nullptr ? std::nullopt : valueAt<CK_ULONG>(item.output);
  if (room) {
    text << *room;
  } else {
    showAddress(text, item.output);
  }
}

void showArgument(TraceText& text, const TracedItem& item) {
  using enum TracedArgument::Kind;
  const TracedArgument& argument = item.argument;
  text << item.word << "=";
  if (item.length != nullptr && argument.kind == attributes) {
    showTemplateGiven(text, item);
  } else if (item.length != nullptr && item.length->kind == number) {
    if (argument.pointer == nullptr || !item.isSecret) {
      showBytes(text, argument.pointer, item.length->number);
    }
    text << "[" << item.length->number << "]";
  } else if (item.length != nullptr) {
    showAddress(text, argument.pointer);
    showRoom(text << "[", item);
    text << "]";
  } else if (argument.kind == number) {
    showNumber(text, item.word, argument.number);
  } else if (argument.kind == mechanism) {
    showMechanism(text, argument.pointer);
  } else if (item.buffer != nullptr && item.output != nullptr) {
    showRoom(text << "&", item);
  } else {
    showAddress(text, argument.pointer);
  }
}

void showOutput(TraceText& text, const TracedItem& item, CK_ULONG before) {
  const auto now = valueAt<CK_ULONG>(item.output);
  if (!now || (item.buffer == nullptr && mayBeLeft(before, *now))) return;
  text << " " << item.word << (item.length == nullptr ? "=" : "=[") << *now;
  text << (item.length == nullptr ? "" : "]");
}

// This thread's number, from 1 in the order of their first calls.
CK_ULONG threadNumber() {
  static std::atomic<CK_ULONG> count{0};
  static thread_local const CK_ULONG number = ++count;
  return number;
}

void showWaivers(TraceText& text, const WaiverSet& waived) {
  std::string_view separator = " waived=";
  for (std::size_t i = 0; i < waived.size(); ++i) {
    if (!waived[i]) continue;
    text << std::exchange(separator, ",") << waiverName(static_cast<Waiver>(i));
  }
}

}  // namespace

thread_local WaiverSet TracedCall::waived;

TracedCall::TracedCall(Trace& trace, const char* name, const char* words,
                       std::span<const TracedArgument> arguments)
    : trace_(trace), words_(words), arguments_(arguments) {
  TraceText text;
  text << name << "(";
  std::size_t outputs = 0;
  forEachItem(words_, arguments_, [&](const TracedItem& item, bool last) {
    showArgument(text, item);
    if (!last) text << ", ";
    if (item.isAsked && readTemplate(item, asked_)) readRooms(asked_);
    if (item.output != nullptr) {
      before_.at(outputs++) = valueAt<CK_ULONG>(item.output).value_or(0);
    }
  });
  place_ = trace_.begin((text << ")").view());
  waived.reset();
  start_ = std::chrono::steady_clock::now();
}

void TracedCall::returned(CK_RV result) {
  using namespace std::chrono;
  const auto time = duration_cast<microseconds>(steady_clock::now() - start_);
  TraceText text;
  showValue(text, "CKR_", result);
  text << " ";
  text.hexadecimal(result) << " <" << static_cast<CK_ULONG>(time.count()) << " us>";
  showWaivers(text, waived);
  if (threadNumber() != 1) text << " thread=" << threadNumber();
  const bool passed = result == CKR_OK;
  const bool sized = passed || result == CKR_BUFFER_TOO_SMALL;
  std::size_t outputs = 0;
  forEachItem(words_, arguments_, [&](const TracedItem& item, bool) {
    if (item.isAsked && sized) showTemplateFilled(text, item, asked_, passed);
    if (item.output == nullptr) return;
    const CK_ULONG before = before_.at(outputs++);
    if (passed || (sized && item.isSize)) showOutput(text, item, before);
  });
  trace_.end(place_, text.view());
}
