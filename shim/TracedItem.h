// The arguments of a call, taken apart by the words that the trace has for them.
#pragma once

#include <algorithm>
#include <span>
#include <string_view>

#include "harness/Pkcs11.h"

// One argument of a call, as far as a line shows it.
struct TracedArgument {
  enum class Kind { number, bytes, count, mechanism, attributes, address };

  TracedArgument(CK_ULONG value) : kind(Kind::number), number(value) {}
  TracedArgument(CK_BYTE value) : kind(Kind::number), number(value) {}
  TracedArgument(const CK_BYTE* bytes) : kind(Kind::bytes), pointer(bytes) {}
  TracedArgument(const CK_ULONG* count) : kind(Kind::count), pointer(count) {}
  TracedArgument(const CK_MECHANISM* mechanism) : kind(Kind::mechanism), pointer(mechanism) {}
  TracedArgument(const CK_ATTRIBUTE* attributes) : kind(Kind::attributes), pointer(attributes) {}
  TracedArgument(const void* address) : kind(Kind::address), pointer(address) {}
  TracedArgument(CK_NOTIFY callback)
      : kind(Kind::address), pointer(reinterpret_cast<const void*>(callback)) {}

  Kind kind;
  const void* pointer = nullptr;
  CK_ULONG number = 0;
};

// One word of an entry, with what it stands for.
struct TracedItem {
  std::string_view word;
  const TracedArgument& argument;
  const TracedArgument* length = nullptr;  // the argument behind it, if that belongs to it
  bool addressOnly = false, isSecret = false, isAsked = false;  // as shim/Entries.h marks it

  // What the module is to fill with a number; null if it is not to, or has nothing to fill.
  const void* output = nullptr;
  bool isSize = false;           // of what another pointer points to,
  const void* buffer = nullptr;  // which is this

  // Takes a mark from the end of the word.
  bool takeMark(char mark) {
    if (!word.ends_with(mark)) return false;
    word.remove_suffix(1);
    return true;
  }
};

// Takes the arguments apart: a pointer goes with the length or the count behind it.
template <typename Show>
void forEachItem(std::string_view words, std::span<const TracedArgument> arguments, Show show) {
  using enum TracedArgument::Kind;
  const TracedArgument* array = nullptr;  // just before, of which only the address is shown
  while (!arguments.empty()) {
    const std::size_t end = std::min(words.find(' '), words.size());
    TracedItem item{words.substr(0, end), arguments[0]};
    words.remove_prefix(std::min(end + 1, words.size()));
    arguments = arguments.subspan(1);
    item.addressOnly = item.takeMark('*');
    item.isSecret = item.takeMark('!');
    item.isAsked = item.takeMark('?');
    if (!item.addressOnly && (item.argument.kind == bytes || item.argument.kind == attributes)) {
      item.length = &arguments[0];
      arguments = arguments.subspan(1);
    }
    if (item.length != nullptr && item.length->kind == count) {
      item.output = item.length->pointer;
      item.isSize = true;
      item.buffer = item.argument.pointer;
    } else if (item.argument.kind == count && !item.addressOnly) {
      item.output = item.argument.pointer;
      item.isSize = array != nullptr;
      item.buffer = array == nullptr ? nullptr : array->pointer;
    }
    array = item.addressOnly ? &item.argument : nullptr;
    show(item, arguments.empty());
  }
}
