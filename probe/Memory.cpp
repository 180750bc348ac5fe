#include "probe/Memory.h"

#include <string.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <new>

namespace kestrel::probe {

namespace {

constexpr std::size_t pageSize = 4096;
constexpr std::size_t maxBlocks = 4096;  // at once: the handler's table does not move

// Every place has another value than its neighbours, and none is 0.
constexpr auto pattern = [] {
  std::array<std::byte, pageSize> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = std::byte(0xa1 + i % 89);
  return bytes;
}();

void fill(std::byte* begin, std::size_t length) {
  for (std::size_t at = 0; at < length; at += pageSize) {
    std::memcpy(begin + at, pattern.data(), std::min(pageSize, length - at));
  }
}

// Whether bytes that begin at `offset` of their page are the pattern.
bool isPattern(const std::byte* begin, std::size_t length) {
  while (length > 0) {
    const std::size_t offset = reinterpret_cast<std::uintptr_t>(begin) % pageSize;
    const std::size_t count = std::min(length, pageSize - offset);
    if (std::memcmp(begin, pattern.data() + offset, count) != 0) return false;
    begin += count;
    length -= count;
  }
  return true;
}

}  // namespace

Memory::Memory() {
  blocks_.reserve(maxBlocks);
}

Memory::~Memory() {
  release(0);
  for (std::byte* const page : spare_) munmap(page - pageSize, 3 * pageSize);
}

std::byte* Memory::takePages(std::size_t length) {
  if (length == pageSize && !spare_.empty()) {
    std::byte* const page = spare_.back();
    spare_.pop_back();
    return page;
  }
  void* const region = mmap(nullptr, length + 2 * pageSize, PROT_NONE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (region == MAP_FAILED) throw std::bad_alloc();
  auto* const pages = static_cast<std::byte*>(region) + pageSize;
  if (mprotect(pages, length, PROT_READ | PROT_WRITE) != 0) {
    munmap(region, length + 2 * pageSize);
    throw std::bad_alloc();
  }
  madvise(pages, length, MADV_DONTDUMP);
  return pages;
}

void* Memory::room(std::size_t size) {
  if (blocks_.size() == maxBlocks || size > (std::size_t{1} << 30)) throw std::bad_alloc();
  const std::size_t length = std::max<std::size_t>((size + pageSize - 1) / pageSize, 1) * pageSize;
  std::byte* const pages = takePages(length);
  fill(pages, length);
  std::byte* const begin = pages + length - size;
  blocks_.push_back({pages, length, begin, size, false});
  return begin;
}

const void* Memory::given(const void* bytes, std::size_t size) {
  void* const begin = room(size);
  if (size > 0) std::memcpy(begin, bytes, size);
  Block& block = blocks_.back();
  if (mprotect(block.pages, block.length, PROT_READ) != 0) throw std::bad_alloc();
  block.readOnly = true;
  return begin;
}

bool Memory::isUntouched(const void* room, std::size_t size) {
  return isPattern(static_cast<const std::byte*>(room), size);
}

bool Memory::isWhole() const {
  return std::ranges::all_of(blocks_, [](const Block& block) {
    return block.readOnly ||
           isPattern(block.pages, static_cast<std::size_t>(block.begin - block.pages));
  });
}

bool Memory::owns(const void* pointer) const {
  const auto* const address = static_cast<const std::byte*>(pointer);
  return std::ranges::any_of(blocks_, [address](const Block& block) {
    return address >= block.begin && address <= block.begin + block.size;
  });
}

void Memory::release(std::size_t mark) {
  while (blocks_.size() > mark) {
    const Block block = blocks_.back();
    blocks_.pop_back();
    if (block.readOnly && mprotect(block.pages, block.length, PROT_READ | PROT_WRITE) != 0) {
      throw std::bad_alloc();
    }
    explicit_bzero(block.begin, block.size);  // it may have been a PIN or a key
    if (block.length == pageSize) {
      spare_.push_back(block.pages);
    } else {
      munmap(block.pages - pageSize, block.length + 2 * pageSize);
    }
  }
}

Memory::Place Memory::placeOf(const void* address) const {
  const auto* const at = static_cast<const std::byte*>(address);
  for (const Block& block : blocks_) {
    const std::byte* const end = block.pages + block.length;
    if (at >= end && at < end + pageSize) return Place::behind;
    if (at >= block.pages - pageSize && at < block.pages) return Place::before;
    if (at >= block.pages && at < end && block.readOnly) return Place::readOnly;
  }
  return Place::elsewhere;
}

}  // namespace kestrel::probe
