// The PINs of the operator, by slot position: where they come from, and that none lasts.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "run/process/Interrupt.h"
#include "run/process/OperatorTerminal.h"

namespace kestrel {

// Wiped when it goes.
class Pin {
 public:
  // What kestrel keeps of a typed line. Its prompt says 31 bytes: these are with the terminator.
  static constexpr std::size_t maxLength = 30;

  // Throws std::runtime_error, which does not quote it, for a PIN that would not reach the token as
  // it is; `source` says where it comes from. An empty one costs a try like any wrong one.
  Pin(std::string_view text, const std::string& source);
  ~Pin();
  Pin(const Pin&) = delete;
  Pin& operator=(const Pin&) = delete;

  std::string_view text() const { return {bytes_.data(), length_}; }

 private:
  std::array<char, maxLength> bytes_{};
  std::size_t length_;
};

class Pins {
 public:
  // From a file, a PIN a line. Throws std::runtime_error when others can read it, and for what no
  // PIN can be.
  void readFile(const std::string& path);

  // From KESTREL_PIN, for slot position 0, unless there is one already. The variable leaves the
  // environment either way: no process that is started sees it.
  void takeFromEnvironment();

  bool empty() const { return pins_.empty(); }

  // For every slot position that has none of its own.
  void setDefault(std::string_view pin) { default_.emplace(pin, "default"); }

  // Asks for what is not known, once per slot position, when there is a terminal.
  void askOn(OperatorTerminal* terminal, Interrupt& interrupt);

  // The PIN of a slot position, null for none. Where it is asked for, the question names the token,
  // if its label is given: what the operator types is that one's.
  const Pin* find(std::uint64_t position, std::string_view token = {});

  // Notes that a token refused this PIN, and where: it is not to be tried again, on no module.
  void refuse(std::uint64_t position, const std::string& where);

  // Where the PIN was refused; empty if it was not.
  std::string refusedWhere(const Pin& pin) const;

  // Replaces the PINs in a text that a module may have written them into. Those of fewer than four
  // bytes stay: they stand in any report by chance.
  void removeFrom(std::string& text) const;

 private:
  const Pin* ask(std::uint64_t position, std::string_view token);

  std::map<std::uint64_t, Pin> pins_;
  std::optional<Pin> default_;
  std::map<const Pin*, std::string> refused_;
  std::map<std::uint64_t, bool> asked_;
  OperatorTerminal* terminal_ = nullptr;
  Interrupt* interrupt_ = nullptr;
};

}  // namespace kestrel
