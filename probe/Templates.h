// Templates in guarded memory, and the reading of attributes.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "probe/Calls.h"
#include "probe/Outside.h"

namespace kestrel::probe {

// CKA_LABEL of every object that a check leaves on a token: by it they are found and removed.
inline constexpr View ownLabel = "kestrel-probe";

// The attributes of an object, each value a block of its own that a module may only read.
class Template {
 public:
  explicit Template(Memory& memory) : memory_(memory) {}

  Template& add(CK_ATTRIBUTE_TYPE type, CK_ULONG value) {
    return add(type, View(reinterpret_cast<const char*>(&value), sizeof value));
  }
  Template& add(CK_ATTRIBUTE_TYPE type, bool value) {
    const CK_BBOOL byte = value ? CK_TRUE : CK_FALSE;
    return add(type, View(reinterpret_cast<const char*>(&byte), sizeof byte));
  }
  Template& add(CK_ATTRIBUTE_TYPE type, View value) {
    attributes_.push_back({type, memory_.in(value), value.size()});
    return *this;
  }
  // As it is: for what is wrong on purpose.
  Template& add(const CK_ATTRIBUTE& attribute) {
    attributes_.push_back(attribute);
    return *this;
  }

  CK_ULONG count() const { return attributes_.size(); }

  // The array as a module may read it, until the memory is released.
  CK_ATTRIBUTE* in() const { return memory_.in(std::span<const CK_ATTRIBUTE>(attributes_)); }

 private:
  Memory& memory_;
  std::vector<CK_ATTRIBUTE> attributes_;
};

// The value of an attribute; nothing if the token does not give it. Of at most 16 KiB.
std::optional<Bytes> readAttribute(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                   CK_ATTRIBUTE_TYPE type);

// The same for one of type CK_ULONG or CK_BBOOL.
std::optional<CK_ULONG> readNumber(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                   CK_ATTRIBUTE_TYPE type);

// The objects that match a template, at most `most` of them. Empty if the token refuses the search.
std::vector<CK_OBJECT_HANDLE> findObjects(CK_SESSION_HANDLE session, const Template& wanted,
                                          std::size_t most);

}  // namespace kestrel::probe
