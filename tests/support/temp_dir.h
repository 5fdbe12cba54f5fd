// A fresh directory under the system's temporary directory for one test, removed with
// everything in it when the object goes (or kept for a look when the test failed, if asked).
#ifndef VEXO_TESTS_SUPPORT_TEMP_DIR_H
#define VEXO_TESTS_SUPPORT_TEMP_DIR_H

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace vexo_test {

class TempDir {
  public:
    enum class Keep { kNever, kOnFailure };

    /// Makes <tmp>/<prefix>-XXXXXX; throws when it cannot, so that the test fails there
    /// rather than writing elsewhere.
    explicit TempDir(const std::string &prefix = "vexo-test", Keep keep = Keep::kNever)
        : keep_(keep) {
        std::string pattern =
            (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("mkdtemp " + pattern + ": " + std::strerror(errno));
        }
        path_ = pattern;
    }
    ~TempDir() {
        if (keep_ == Keep::kOnFailure && ::testing::Test::HasFailure()) {
            std::fprintf(stderr, "kept %s for a look\n", path_.c_str());
            return;
        }
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    /// path()/name
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
    Keep keep_;
};

} // namespace vexo_test

#endif
