#include "shim/Trace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "shim/TraceText.h"

namespace {

// What stands in the place of a result, with room for one that is written when another thread's
// call has its line behind already.
constexpr std::string_view unfinished =
    "<unfinished ...>                                                                ";

constexpr off_t maxSize = off_t{16} << 20;  // of the file: some tests do not end

}  // namespace

Trace::~Trace() {
  // A child may have the file for longer.
  if (isOpen()) flock(file_, LOCK_UN);
  if (file_ >= 0) close(file_);
}

void Trace::open(const char* path) {
  const auto fail = [path](const char* why) {
    throw std::runtime_error(std::string("cannot write the trace '") + path + "': " + why);
  };
  // A FIFO is not waited for.
  file_ = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, DEFFILEMODE);
  struct stat status {};
  if (file_ < 0 || fstat(file_, &status) != 0) fail(std::strerror(errno));
  if (!S_ISREG(status.st_mode)) fail("not a regular file");
  // Lines are put in their places: those of another process would be written over.
  if (flock(file_, LOCK_EX | LOCK_NB) != 0) fail("in use by another process");
  owner_ = getpid();
  end_ = status.st_size;
}

bool Trace::isOpen() const {
  return file_ >= 0 && getpid() == owner_;
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
  if (!isOpen()) return;  // the module has forked in the call, and this is the child
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
