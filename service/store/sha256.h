/// A SHA-256 computed as bytes come in, as lowercase hex.
#ifndef VEXO_CLOUD_SHA256_H
#define VEXO_CLOUD_SHA256_H

#include <cstddef>
#include <string>

struct evp_md_ctx_st;

namespace vexo_cloud {

class Sha256 {
  public:
    /// Throws FileError when OpenSSL cannot start a digest.
    Sha256();
    ~Sha256();
    Sha256(const Sha256 &) = delete;
    Sha256 &operator=(const Sha256 &) = delete;

    void add(const char *data, size_t size);
    /// The digest of everything added so far (the running one goes on).
    std::string text() const;

  private:
    evp_md_ctx_st *context_;
};

/// The SHA-256 of size bytes at data.
std::string sha256_hex(const char *data, size_t size);

} // namespace vexo_cloud

#endif
