// The PINs of the operator, by slot position: where they come from, and that none lasts.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
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
  // From a file, a PIN a line; "-" is standard input. Throws std::runtime_error for what no PIN can
  // be, and when others can read the file: unless it is on a file system that cannot be changed, as
  // the secrets of a container are, which is said on standard error.
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

// The PINs of a run on several modules: those for all of them, and those of a module that has a
// file of its own, which gets no others.
class PinSets {
 public:
  Pins common;

  // Reads "FILE" for all, or "NAME=FILE" for the module of that name, if `isModule` says that there
  // is one. Throws std::runtime_error as Pins::readFile, and for a name that is none.
  void read(const std::string& argument, const std::function<bool(const std::string&)>& isModule);

  Pins& of(const std::string& module);
  void removeFrom(std::string& text) const;

 private:
  std::map<std::string, Pins> own_;
};

}  // namespace kestrel
