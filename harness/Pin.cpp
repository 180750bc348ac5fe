#include "harness/Pin.h"

#include <openssl/crypto.h>

#include <algorithm>

namespace kestrel {

namespace {

Pin* first = nullptr;

}  // namespace

Pin::Pin() : next_(first) {
  if (next_ != nullptr) next_->previous_ = this;
  first = this;
}

Pin::Pin(std::string_view text) : Pin() {
  length_ = std::min(text.size(), maxLength);
  std::copy_n(text.begin(), length_, bytes_.begin());
}

Pin::Pin(const Pin& other) : Pin() {
  *this = other;
}

Pin& Pin::operator=(const Pin& other) {
  if (this == &other) return *this;
  bytes_ = other.bytes_;  // each PIN keeps its own place in the list
  length_ = other.length_;
  return *this;
}

Pin::~Pin() {
  wipe();
  (previous_ == nullptr ? first : previous_->next_) = next_;
  if (next_ != nullptr) next_->previous_ = previous_;
}

void Pin::wipe() {
  OPENSSL_cleanse(bytes_.data(), bytes_.size());
}

void Pin::wipeAll() {
  for (Pin* pin = first; pin != nullptr; pin = pin->next_) pin->wipe();
}

}  // namespace kestrel
