/// SHA-256 through OpenSSL's EVP interface.
#include "sha256.h"

#include <cerrno>
#include <openssl/evp.h>

#include "durable_file.h"

namespace vexo_cloud {

namespace {

std::string hex(const unsigned char *bytes, size_t size) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

} // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr || EVP_DigestInit_ex(context_, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(context_);
        throw FileError("cannot start a SHA-256", ENOMEM);
    }
}

Sha256::~Sha256() {
    EVP_MD_CTX_free(context_);
}

void Sha256::add(const char *data, size_t size) {
    if (EVP_DigestUpdate(context_, data, size) != 1) {
        throw FileError("cannot compute a SHA-256", EIO);
    }
}

std::string Sha256::text() const {
    EVP_MD_CTX *copy = EVP_MD_CTX_new();
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    const bool ok = copy != nullptr && EVP_MD_CTX_copy_ex(copy, context_) == 1 &&
                    EVP_DigestFinal_ex(copy, digest, &size) == 1;
    EVP_MD_CTX_free(copy);
    if (!ok) {
        throw FileError("cannot compute a SHA-256", EIO);
    }
    return hex(digest, size);
}

std::string sha256_hex(const char *data, size_t size) {
    Sha256 sha;
    sha.add(data, size);
    return sha.text();
}

} // namespace vexo_cloud
