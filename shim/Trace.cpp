#include "shim/Trace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "shim/Names.h"

namespace {

// What stands in the place of a result, with room for one that is written when another thread's
// call has its line behind already.
constexpr std::string_view unfinished =
    "<unfinished ...>                                                                ";

constexpr off_t maxSize = off_t{16} << 20;  // of the file: some tests do not end

constexpr CK_ULONG maxBytes = 64;  // of data that are shown

// Attributes that tell which object is meant; the values of others may be secrets.
constexpr CK_ATTRIBUTE_TYPE shownAttributes[] = {CKA_CLASS, CKA_ID, CKA_LABEL};

// The words of an entry, one after the other.
class Words {
 public:
  explicit Words(std::string_view words) : rest_(words) {}

  std::string_view next() {
    const std::size_t end = std::min(rest_.find(' '), rest_.size());
    const std::string_view word = rest_.substr(0, end);
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
    return word;
  }

 private:
  std::string_view rest_;
};

bool isPin(std::string_view word) {
  return word == "pin" || word.ends_with("Pin");
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

void showMechanism(TraceText& text, const CK_MECHANISM& mechanism) {
  showValue(text, "CKM_", mechanism.mechanism);
  const CK_ULONG length = mechanism.ulParameterLen;
  if (length == 0) return;
  text << "(";
  if (mechanism.pParameter != nullptr && length == sizeof(CK_RSA_PKCS_PSS_PARAMS) &&
      nameOf("CKM_", mechanism.mechanism).ends_with("RSA_PKCS_PSS")) {
    const auto& pss = *static_cast<const CK_RSA_PKCS_PSS_PARAMS*>(mechanism.pParameter);
    showValue(text << "hash=", "CKM_", pss.hashAlg);
    text << " mgf=" << pss.mgf << " salt=" << pss.sLen;
  } else if (mechanism.pParameter != nullptr) {
    text.hexadecimal(mechanism.pParameter, std::min(length, maxBytes));
  }
  text << "[" << length << "])";
}

// The template in the first two of `arguments`, as far as it is shown.
std::span<const CK_ATTRIBUTE> attributesOf(std::span<const TracedArgument> arguments) {
  const auto* const attributes = static_cast<const CK_ATTRIBUTE*>(arguments[0].pointer);
  if (attributes == nullptr) return {};
  return {attributes, std::min(arguments[1].number, CK_ULONG{GivenAttributes{}.size()})};
}

GivenAttributes givenIn(std::span<const TracedArgument> arguments) {
  GivenAttributes given{};
  std::ranges::copy(attributesOf(arguments), given.begin());
  return given;
}

// Values are read from where `given` has them: one that is said to be longer by now is not shown.
void showAttributes(TraceText& text, std::span<const TracedArgument> arguments,
                    const GivenAttributes& given) {
  text << "{";
  const CK_ATTRIBUTE* room = given.data();
  for (const CK_ATTRIBUTE& one : attributesOf(arguments)) {
    showValue(text << (room == given.data() ? "" : " "), "CKA_", one.type);
    text << (one.pValue == nullptr ? "=null" : "=");
    if (room->pValue != nullptr && one.ulValueLen <= room->ulValueLen &&
        std::ranges::count(shownAttributes, one.type) != 0) {
      text.hexadecimal(room->pValue, std::min(one.ulValueLen, maxBytes));
    }
    text << "[" << one.ulValueLen << "]";
    ++room;
  }
  text << "}[" << arguments[1].number << "]";
}

void showAddress(TraceText& text, const void* address) {
  text << (address == nullptr ? "null" : "&");
}

void showCount(TraceText& text, const TracedArgument& argument) {
  if (argument.pointer == nullptr) {
    text << "null";
  } else {
    text << *static_cast<const CK_ULONG*>(argument.pointer);
  }
}

// Shows the first of `arguments` under `word` and returns how many that took: a pointer goes with
// the length or the count behind it.
std::size_t showArgument(TraceText& text, std::string_view word,
                         std::span<const TracedArgument> arguments) {
  using enum TracedArgument::Kind;
  const TracedArgument& argument = arguments[0];
  const bool addressOnly = word.ends_with('*');
  text << word.substr(0, word.size() - (addressOnly ? 1 : 0)) << "=";
  const bool withLength = !addressOnly && arguments.size() > 1 &&
                          (argument.kind == bytes || argument.kind == attributes);
  if (withLength && argument.kind == attributes) {
    const bool asked = word == "attributes";  // there is nothing in them yet
    showAttributes(text, arguments, asked ? GivenAttributes{} : givenIn(arguments));
  } else if (withLength && arguments[1].kind == number) {
    const CK_ULONG length = arguments[1].number;
    if (argument.pointer == nullptr) text << "null";
    if (argument.pointer != nullptr && !isPin(word)) {
      text.hexadecimal(argument.pointer, std::min(length, maxBytes));
    }
    text << "[" << length << "]";
  } else if (withLength) {
    showAddress(text, argument.pointer);
    showCount(text << "[", arguments[1]);
    text << "]";
  } else if (argument.kind == number) {
    showNumber(text, word, argument.number);
  } else if (argument.kind == mechanism && argument.pointer != nullptr) {
    showMechanism(text, *static_cast<const CK_MECHANISM*>(argument.pointer));
  } else if (argument.kind == count && !addressOnly) {
    showCount(text << (argument.pointer == nullptr ? "" : "&"), argument);
  } else {
    showAddress(text, argument.pointer);
  }
  return withLength ? 2 : 1;
}

// What came back through the first of `arguments`, be it attributes that were `asked` for; returns
// as showArgument() does.
std::size_t showOutput(TraceText& text, std::string_view word,
                       std::span<const TracedArgument> arguments, const GivenAttributes& asked) {
  using enum TracedArgument::Kind;
  TraceText ignored;
  const std::size_t taken = showArgument(ignored, word, arguments);
  const TracedArgument& last = arguments[taken - 1];
  if (word == "attributes" && arguments[0].pointer != nullptr) {
    showAttributes(text << " " << word << "=", arguments, asked);
  } else if (last.kind == count && last.pointer != nullptr && !word.ends_with('*')) {
    showCount(text << " " << word << (taken == 2 ? "=[" : "="), last);
    text << (taken == 2 ? "]" : "");
  }
  return taken;
}

// This thread's number, from 1 in the order of their first calls.
CK_ULONG threadNumber() {
  static std::atomic<CK_ULONG> count{0};
  static thread_local const CK_ULONG number = ++count;
  return number;
}

}  // namespace

TraceText& TraceText::operator<<(std::string_view text) {
  const std::size_t length = std::min(text.size(), text_.size() - length_);
  std::copy_n(text.begin(), length, text_.begin() + static_cast<std::ptrdiff_t>(length_));
  length_ += length;
  return *this;
}

TraceText& TraceText::operator<<(CK_ULONG number) {
  if (number == ~CK_ULONG{0}) return *this << "-1";
  char digits[24];
  return *this << std::string_view(digits, std::to_chars(digits, std::end(digits), number).ptr);
}

TraceText& TraceText::hexadecimal(CK_ULONG number) {
  char digits[24];
  return *this << "0x"
               << std::string_view(digits, std::to_chars(digits, std::end(digits), number, 16).ptr);
}

TraceText& TraceText::hexadecimal(const void* bytes, CK_ULONG length) {
  constexpr std::string_view digits = "0123456789abcdef";
  for (CK_ULONG i = 0; i < length; ++i) {
    const CK_BYTE byte = static_cast<const CK_BYTE*>(bytes)[i];
    *this << digits.substr(byte >> 4, 1) << digits.substr(byte & 15, 1);
  }
  return *this;
}

Trace::~Trace() {
  if (file_ >= 0) close(file_);
}

void Trace::open(const char* path) {
  const auto fail = [path](const char* why) {
    throw std::runtime_error(std::string("cannot write the trace '") + path + "': " + why);
  };
  file_ = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, DEFFILEMODE);
  struct stat status {};
  if (file_ < 0 || fstat(file_, &status) != 0) fail(std::strerror(errno));
  if (!S_ISREG(status.st_mode)) fail("not a regular file");
  // Lines are put in their places: those of another process would be written over.
  if (flock(file_, LOCK_EX | LOCK_NB) != 0) fail("in use by another process");
  end_ = status.st_size;
}

void Trace::write(std::string_view text, off_t position) {
  if (full_) return;
  const off_t end = position + static_cast<off_t>(text.size());
  errno = EFBIG;
  if (end <= maxSize &&
      pwrite(file_, text.data(), text.size(), position) == static_cast<ssize_t>(text.size())) {
    end_ = std::max(end_, end);
    return;
  }
  full_ = true;
  std::fprintf(stderr, "kestrel-shim: the trace ends early: %s\n", std::strerror(errno));
}

Trace::Place Trace::begin(std::string_view head) {
  TraceText line;
  line << head.substr(0, 900) << " = ";
  const auto length = static_cast<off_t>(line.view().size());
  line << unfinished << "\n";
  const std::lock_guard lock(mutex_);
  const Place place{end_, length, static_cast<off_t>(line.view().size())};
  write(line.view(), place.start);
  return place;
}

void Trace::end(const Place& place, std::string_view result) {
  const std::lock_guard lock(mutex_);
  const off_t position = place.start + place.head;
  TraceText text;
  if (place.start + place.length != end_) {
    const auto room = static_cast<std::size_t>(place.length - place.head) - 1;
    text << result.substr(0, room);
    while (text.view().size() < room) text << " ";
    write(text.view(), position);
    return;
  }
  text << result << "\n";
  write(text.view(), position);
  const off_t end = position + static_cast<off_t>(text.view().size());
  if (!full_ && end < end_ && ftruncate(file_, end) == 0) end_ = end;
}

thread_local const char* TracedCall::waiver = nullptr;

TracedCall::TracedCall(Trace& trace, const char* name, const char* words,
                       std::span<const TracedArgument> arguments)
    : trace_(trace), words_(words), arguments_(arguments) {
  TraceText text;
  text << name << "(";
  Words word(words_);
  for (std::span<const TracedArgument> rest = arguments_; !rest.empty();) {
    const std::string_view argument = word.next();
    if (argument == "attributes") asked_ = givenIn(rest);
    rest = rest.subspan(showArgument(text, argument, rest));
    if (!rest.empty()) text << ", ";
  }
  place_ = trace_.begin((text << ")").view());
  waiver = nullptr;
  start_ = std::chrono::steady_clock::now();
}

void TracedCall::returned(CK_RV result) {
  using namespace std::chrono;
  const auto time = duration_cast<microseconds>(steady_clock::now() - start_);
  TraceText text;
  showValue(text, "CKR_", result);
  text << " ";
  text.hexadecimal(result) << " <" << static_cast<CK_ULONG>(time.count()) << " us>";
  if (waiver != nullptr) text << " waived=" << waiver;
  if (threadNumber() != 1) text << " thread=" << threadNumber();
  Words word(words_);
  for (std::span<const TracedArgument> rest = arguments_; !rest.empty();) {
    rest = rest.subspan(showOutput(text, word.next(), rest, asked_));
  }
  trace_.end(place_, text.view());
}
