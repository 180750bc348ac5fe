// A folder to run a process in.
#pragma once

#include <filesystem>

namespace kestrel {

// A folder of its own under the system's for temporary files, gone with all that is in it when the
// object goes. Nothing behind a link in it is touched.
class TemporaryFolder {
 public:
  TemporaryFolder();  // throws std::system_error
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace kestrel
