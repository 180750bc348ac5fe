#include "run/process/Folder.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>

namespace kestrel {

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder() {
  const char* const folder = std::getenv("TMPDIR");
  std::string name =
      fs::path(folder == nullptr || *folder == '\0' ? "/tmp" : folder) / "kestrel-run-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), name);
  }
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code error;
  fs::remove_all(path_, error);
  if (!error) return;
  // A module may have left folders that cannot be looked into.
  fs::permissions(path_, fs::perms::owner_all, error);
  for (fs::recursive_directory_iterator at(path_, error), end; !error && at != end;
       at.increment(error)) {
    if (at->is_directory(error) && !at->is_symlink(error)) {
      fs::permissions(at->path(), fs::perms::owner_all, error);
    }
  }
  fs::remove_all(path_, error);
}

}  // namespace kestrel
