// Reading what somebody else's pointer points to, which may be nothing.
#pragma once

#include <cstddef>
#include <optional>

// Copies `size` bytes, all or none. False where they cannot be read.
bool readMemory(const void* from, void* to, std::size_t size);

template <typename Value>
std::optional<Value> valueAt(const void* pointer) {
  Value value;
  return readMemory(pointer, &value, sizeof value) ? std::optional(value) : std::nullopt;
}
