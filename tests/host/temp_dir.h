// A directory under the system's temporary directory, removed with everything in it when the
// object goes.
#ifndef VEXO_TESTS_HOST_TEMP_DIR_H
#define VEXO_TESTS_HOST_TEMP_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace vexo_test {

class TempDir {
  public:
    explicit TempDir(const char *prefix) {
        std::string pattern =
            (std::filesystem::temp_directory_path() / (std::string(prefix) + "-XXXXXX")).string();
        if (mkdtemp(pattern.data()) != nullptr) {
            path_ = pattern;
        }
    }
    ~TempDir() {
        if (!path_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(path_, ignored);
        }
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    /// Empty when the directory could not be made.
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

} // namespace vexo_test

#endif
