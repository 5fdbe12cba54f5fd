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

void put_le(Bytes *out, uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
        out->push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

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
                           vexo_media::kIv.data()) != 1 ||
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
    put_le(&out, type, 4);
    put_le(&out, payload.size(), 4);
    put_le(&out, timestamp, 8);
    put_le(&out, pts, 8);
    out.insert(out.end(), payload.begin(), payload.end());
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

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vexo-media-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string &name, const Bytes &bytes) const {
    const std::string full = path_ + "/" + name;
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
