// Memory in which a module is caught when it touches what it was not given.
//
// Every block ends at a page that nobody may touch and begins behind another one. What lies between
// the first page's start and the block is a pattern, which is looked at after each call. A block
// that a module may only read is on a page that can only be read. So a write past the room, before
// it, or into our data, and a read behind the end, is a fault at the very instruction, or seen as
// soon as the call returns.
//
// Linux on x86-64 tells a handler whether a fault was a read or a write. One thread makes and
// releases blocks; a fault may come from any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "harness/Pkcs11.h"

namespace kestrel::probe {

class Memory {
 public:
  Memory();
  ~Memory();
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;

  // Room that a module may write, full of the pattern.
  void* room(std::size_t size);

  // A copy of `bytes` that a module may only read.
  const void* given(const void* bytes, std::size_t size);

  // Room for `count` objects, each a copy of `initial`.
  template <typename Object>
  Object* out(const Object& initial, std::size_t count = 1) {
    static_assert(std::is_trivially_copyable_v<Object>);
    auto* const objects = static_cast<Object*>(room(sizeof(Object) * count));
    for (std::size_t i = 0; i < count; ++i) std::memcpy(objects + i, &initial, sizeof initial);
    return objects;
  }

  CK_BYTE* bytes(std::size_t size) { return static_cast<CK_BYTE*>(room(size)); }

  // PKCS #11 takes what it only reads through pointers that are not const.
  template <typename Object>
  Object* in(std::span<const Object> objects) {
    static_assert(std::is_trivially_copyable_v<Object>);
    return static_cast<Object*>(const_cast<void*>(given(objects.data(), objects.size_bytes())));
  }
  template <typename Object>
  requires(!std::is_array_v<Object>)  // a literal is a text
      Object* in(const Object& object) {
    return in(std::span<const Object>(&object, 1));
  }
  CK_BYTE* in(std::string_view text) {
    return in(std::span<const CK_BYTE>(reinterpret_cast<const CK_BYTE*>(text.data()), text.size()));
  }

  // Whether room of `size` bytes still holds the pattern that it began with.
  static bool isUntouched(const void* room, std::size_t size);

  // Whether the pattern before every block is whole.
  bool isWhole() const;

  // Whether a pointer is into a block of this memory, or just behind it.
  bool owns(const void* pointer) const;

  // The number of blocks, and the release of all that were made since then.
  std::size_t mark() const { return blocks_.size(); }
  void release(std::size_t mark);

  // What a fault at `address` means: for a signal handler.
  enum class Place { elsewhere, behind, before, readOnly };
  Place placeOf(const void* address) const;

 private:
  struct Block {
    std::byte* pages;
    std::size_t length;  // of the pages, without those that nobody may touch
    std::byte* begin;
    std::size_t size;
    bool readOnly;
  };

  std::byte* takePages(std::size_t length);

  std::vector<Block> blocks_;
  std::vector<std::byte*> spare_;  // single pages that can be written, each between two that cannot
};

// Releases at its end what was made while it lives.
class MemoryScope {
 public:
  explicit MemoryScope(Memory& memory) : memory_(memory), mark_(memory.mark()) {}
  ~MemoryScope() { memory_.release(mark_); }
  MemoryScope(const MemoryScope&) = delete;
  MemoryScope& operator=(const MemoryScope&) = delete;

 private:
  Memory& memory_;
  std::size_t mark_;
};

}  // namespace kestrel::probe
