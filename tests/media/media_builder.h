// Building media files for the tests: entry headers and payloads, encryption with OpenSSL's
// EVP interface (independent of the reader under test), files in a temporary directory.
#ifndef VEXO_TESTS_MEDIA_BUILDER_H
#define VEXO_TESTS_MEDIA_BUILDER_H

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tools/media_format/media_format.h"

namespace media_test {

using Bytes = std::vector<uint8_t>;

/// AES-128-CBC with PKCS#7 padding and the fixed IV.
Bytes encrypt(const vexo_media::Key &key, const Bytes &plain);

/// One entry: header (type, length of payload, time stamp, pts) and the payload as given.
Bytes entry(uint32_t type, const Bytes &payload, uint64_t timestamp, uint64_t pts = 0);

/// One entry whose payload is the encryption of plain (for key frames and audio).
Bytes sealed_entry(const vexo_media::Key &key, uint32_t type, const Bytes &plain,
                   uint64_t timestamp);

Bytes concat(const std::vector<Bytes> &parts);

/// A fresh temporary directory that test media files are written to.
class TempDir : public vexo_test::TempDir {
  public:
    TempDir() : vexo_test::TempDir("vexo-media") {}
    /// Writes bytes to path()/name and returns the full path.
    std::string write(const std::string &name, const Bytes &bytes) const;
};

extern const vexo_media::Key kTestKey;

} // namespace media_test

#endif
