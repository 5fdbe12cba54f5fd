// Test media files, built without the reader under test.
#include "media_builder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <openssl/evp.h>
#include <stdexcept>

namespace media_test {

const vexo_media::Key kTestKey = {'0', '1', '2', '3', '4', '5', '6', '7',
                                  '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};

namespace {

struct CipherFree {
    void operator()(EVP_CIPHER_CTX *ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

} // namespace

Bytes encrypt(const vexo_media::Key &key, const Bytes &plain) {
    std::unique_ptr<EVP_CIPHER_CTX, CipherFree> ctx(EVP_CIPHER_CTX_new());
    Bytes out(plain.size() + 16);
    int written = 0;
    int last = 0;
    if (!ctx ||
        EVP_EncryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key.data(),
                           kitcommon::kMediaIv) != 1 ||
        EVP_EncryptUpdate(ctx.get(), out.data(), &written, plain.data(),
                          static_cast<int>(plain.size())) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), out.data() + written, &last) != 1) {
        throw std::runtime_error("EVP encryption failed");
    }
    out.resize(static_cast<size_t>(written + last));
    return out;
}

Bytes entry(uint32_t type, const Bytes &payload, uint64_t timestamp, uint64_t pts) {
    Bytes out;
    kitcommon::append_media_entry(type, payload, timestamp, pts, &out);
    return out;
}

Bytes sealed_entry(const vexo_media::Key &key, uint32_t type, const Bytes &plain,
                   uint64_t timestamp) {
    return entry(type, encrypt(key, plain), timestamp, timestamp * 90);
}

Bytes concat(const std::vector<Bytes> &parts) {
    Bytes out;
    for (const Bytes &part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

std::string TempDir::write(const std::string &name, const Bytes &bytes) const {
    const std::string full = file(name);
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream out(full, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + full);
    }
    return full;
}

} // namespace media_test
