#include "common/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "common/Descriptor.h"

namespace kestrel {

namespace {

[[noreturn]] void fail(const std::string& path) {
  throw std::system_error(errno, std::system_category(), path);
}

void writeAll(int file, std::string_view rest, const std::string& path) {
  while (!rest.empty()) {
    const ssize_t written = write(file, rest.data(), rest.size());
    if (written > 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR) {
      fail(path);
    }
  }
}

// The owner of a file that open() has opened, or has not.
Descriptor opened(int number, const std::string& path) {
  if (number < 0) fail(path);
  return Descriptor(number);
}

// The permissions that a new file gets.
mode_t newMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return DEFFILEMODE & ~mask;
}

// The new file beside the one that it becomes; gone unless it became that.
class Replacement {
 public:
  explicit Replacement(const std::filesystem::path& path)
      : path_(path),
        name_(path.parent_path() / ".kestrel-run.XXXXXX"),
        file_(opened(mkostemp(name_.data(), O_CLOEXEC), path)) {}
  Replacement(const Replacement&) = delete;
  ~Replacement() {
    if (!done_) unlink(name_.c_str());
  }

  void fill(const std::string& content) {
    writeAll(file_.get(), content, path_);
    if (fsync(file_.get()) != 0 && errno != EINVAL) fail(path_);
  }

  void permit(mode_t mode) {
    if (fchmod(file_.get(), mode) != 0) fail(path_);
  }

  void replace() {
    if (rename(name_.c_str(), path_.c_str()) != 0) fail(path_);
    done_ = true;
  }

 private:
  std::string path_, name_;
  Descriptor file_;
  bool done_ = false;
};

bool isSameFile(const struct stat& file, int descriptor) {
  struct stat other {};
  return fstat(descriptor, &other) == 0 && other.st_dev == file.st_dev &&
         other.st_ino == file.st_ino;
}

}  // namespace

void writeFile(const std::string& path, const std::string& content) {
  struct stat old {};
  const bool exists = path != "-" && stat(path.c_str(), &old) == 0;
  // /dev/stdout names the file that standard output was sent to: replaced, it would lose the rest.
  for (const int standard : {STDOUT_FILENO, STDERR_FILENO}) {
    if (path == "-" || (exists && isSameFile(old, standard))) {
      return writeAll(standard, content, path == "-" ? "standard output" : path);
    }
  }
  if (exists && !S_ISREG(old.st_mode)) {
    const Descriptor file = opened(open(path.c_str(), O_WRONLY | O_CLOEXEC), path);
    return writeAll(file.get(), content, path);
  }
  if (exists && access(path.c_str(), W_OK) != 0) fail(path);
  // The file behind a link is replaced, not the link.
  Replacement replacement(std::filesystem::weakly_canonical(path));
  replacement.fill(content);
  replacement.permit(exists ? old.st_mode & ACCESSPERMS : newMode());
  replacement.replace();
}

}  // namespace kestrel
