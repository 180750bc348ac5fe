#include "harness/StandardStream.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace kestrel {

namespace {

// Above what shells and modules count from, so that modules get the numbers they always got.
constexpr int firstDuplicate = 10;

}  // namespace

void StandardStream::recognise() {
  struct stat status = {};
  known_ = fstat(number_, &status) == 0;
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

void StandardStream::keep() {
  recognise();
  duplicate_ = fcntl(number_, F_DUPFD_CLOEXEC, firstDuplicate);
}

int StandardStream::descriptor() const {
  if (isAt(duplicate_)) return duplicate_;
  return !known_ || isAt(number_) ? number_ : -1;
}

bool StandardStream::isAt(int descriptor) const {
  struct stat status = {};
  return descriptor >= 0 && fstat(descriptor, &status) == 0 && status.st_dev == device_ &&
         status.st_ino == inode_;
}

}  // namespace kestrel
