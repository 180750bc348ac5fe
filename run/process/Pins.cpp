#include "run/process/Pins.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "common/FitText.h"
#include "common/Lines.h"

namespace kestrel {

namespace {

// The text of a PIN file. Never moved, and wiped when it goes.
class Secret {
 public:
  Secret() = default;
  ~Secret() { explicit_bzero(bytes_.data(), bytes_.size()); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  std::span<char> room() { return bytes_; }

 private:
  std::array<char, 65536> bytes_{};
};

Descriptor openPrivately(const std::string& path) {
  Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  struct stat status = {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  const bool foreign = status.st_uid != geteuid() && status.st_uid != 0;
  if (!foreign && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0) return file;
  struct statvfs system = {};
  if (fstatvfs(file.get(), &system) != 0 || (system.f_flag & ST_RDONLY) == 0) {
    throw std::runtime_error(path + ": others can read this PIN file (chmod 600 it)");
  }
  fmt::print(stderr, "{}: others can read this PIN file, which cannot be changed here\n", path);
  return file;
}

Descriptor standardInput() {
  Descriptor file(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
  if (file.get() < 0) throw std::system_error(errno, std::generic_category(), "standard input");
  return file;
}

std::string_view readWhole(int file, std::span<char> room, const std::string& path) {
  std::size_t length = 0;
  while (length < room.size()) {
    const ssize_t count = read(file, room.data() + length, room.size() - length);
    if (count < 0) throw std::system_error(errno, std::generic_category(), path);
    if (count == 0) return {room.data(), length};
    length += static_cast<std::size_t>(count);
  }
  throw std::runtime_error(path + ": too long for a PIN file");
}

}  // namespace

Pin::Pin(std::string_view text, const std::string& source) : length_(text.size()) {
  const auto refuse = [&source](const std::string& what) {
    throw std::runtime_error(fmt::format("{}: {}", source, what));
  };
  if (text.empty()) refuse("an empty PIN would cost a try");
  if (length_ > maxLength) refuse(fmt::format("a PIN has {} bytes at most", maxLength));
  if (text.find_first_of(std::string_view("\0\r\n", 3)) != text.npos) refuse("not a PIN");
  std::ranges::copy(text, bytes_.begin());
}

Pin::~Pin() {
  explicit_bzero(bytes_.data(), bytes_.size());
}

void Pins::readFile(const std::string& path) {
  const Descriptor file = path == "-" ? standardInput() : openPrivately(path);
  Secret secret;
  std::string_view rest = readWhole(file.get(), secret.room(), path);
  constexpr std::string_view byteOrderMark = "\xef\xbb\xbf";  // some editors put it there
  if (rest.starts_with(byteOrderMark)) rest.remove_prefix(byteOrderMark.size());
  for (std::uint64_t position = 0; !rest.empty(); ++position) {
    std::string_view line = withoutEnd(takeLine(rest));
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (!line.empty()) {
      pins_.try_emplace(position, line, fmt::format("{}, line {}", path, position + 1));
    }
  }
  if (pins_.empty()) throw std::runtime_error(path + ": no PIN in it");
}

void Pins::takeFromEnvironment() {
  constexpr char name[] = "KESTREL_PIN";
  char* const value = std::getenv(name);
  if (value == nullptr) return;
  if (!pins_.contains(0)) pins_.try_emplace(0, value, name);
  explicit_bzero(value, strlen(value));  // /proc shows the memory that the program began with
  unsetenv(name);
}

void Pins::askOn(OperatorTerminal* terminal, Interrupt& interrupt) {
  terminal_ = terminal;
  interrupt_ = &interrupt;
}

const Pin* Pins::find(std::uint64_t position, std::string_view token) {
  const auto known = pins_.find(position);
  if (known != pins_.end()) return &known->second;
  return default_ ? &*default_ : ask(position, token);
}

const Pin* Pins::ask(std::uint64_t position, std::string_view token) {
  if (terminal_ == nullptr || std::exchange(asked_[position], true)) return nullptr;
  std::array<char, Pin::maxLength> answer{};
  const std::string question =
      token.empty() ? fmt::format("PIN for slot position {}: ", position)
                    : fmt::format("PIN for \"{}\" (slot position {}): ", visible(token), position);
  std::size_t length;
  while ((length = terminal_->ask(question, answer, *interrupt_)) > answer.size()) {
    terminal_->write(fmt::format("A PIN has {} bytes at most.\n", Pin::maxLength));
  }
  const Pin* pin = nullptr;
  if (length > 0) {
    const std::string_view text(answer.data(), length);
    pin = &pins_.try_emplace(position, text, "terminal").first->second;
  }
  explicit_bzero(answer.data(), answer.size());
  return pin;
}

void Pins::refuse(std::uint64_t position, const std::string& where) {
  if (const Pin* pin = find(position)) refused_.emplace(pin, where);
}

std::string Pins::refusedWhere(const Pin& pin) const {
  for (const auto& [refused, where] : refused_) {
    if (refused->text() == pin.text()) return where;
  }
  return "";
}

void Pins::removeFrom(std::string& text) const {
  for (const auto& [position, pin] : pins_) {
    const std::string_view secret = pin.text();
    if (secret.size() < 4 || text.find(secret) == text.npos) continue;
    std::string clean;
    std::size_t from = 0;
    for (std::size_t at; (at = text.find(secret, from)) != text.npos; from = at + secret.size()) {
      clean.append(text, from, at - from).append("[PIN]");
    }
    text = clean.append(text, from);
  }
}

void PinSets::read(const std::string& argument,
                   const std::function<bool(const std::string&)>& isModule) {
  const std::size_t equals = argument.find('=');
  if (equals == argument.npos || argument.find('/') < equals) return common.readFile(argument);
  const std::string name = argument.substr(0, equals);
  if (!isModule(name)) throw std::runtime_error(name + ": no module is called so");
  own_[name].readFile(argument.substr(equals + 1));
}

Pins& PinSets::of(const std::string& module) {
  const auto own = own_.find(module);
  return own == own_.end() ? common : own->second;
}

void PinSets::removeFrom(std::string& text) const {
  common.removeFrom(text);
  for (const auto& [module, pins] : own_) pins.removeFrom(text);
}

}  // namespace kestrel
