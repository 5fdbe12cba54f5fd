// Decryption of the encrypted entries and the key helpers (OpenSSL's EVP interface).
#include "media_format.h"

#include <memory>
#include <openssl/evp.h>

namespace vexo_media {

namespace {

struct CipherFree {
    void operator()(EVP_CIPHER_CTX *ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

constexpr size_t kBlock = 16;

} // namespace

bool decrypt(const Key &key, const std::vector<uint8_t> &cipher, std::vector<uint8_t> *plain) {
    plain->clear();
    if (cipher.empty() || cipher.size() % kBlock != 0 || cipher.size() > kMaxPayload) {
        return false;
    }
    std::unique_ptr<EVP_CIPHER_CTX, CipherFree> ctx(EVP_CIPHER_CTX_new());
    if (!ctx || EVP_DecryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, key.data(),
                                   kitcommon::kMediaIv) != 1) {
        return false;
    }
    plain->resize(cipher.size() + kBlock);
    int written = 0;
    if (EVP_DecryptUpdate(ctx.get(), plain->data(), &written, cipher.data(),
                          static_cast<int>(cipher.size())) != 1) {
        plain->clear();
        return false;
    }
    int last = 0;
    if (EVP_DecryptFinal_ex(ctx.get(), plain->data() + written, &last) != 1) {
        plain->clear();
        return false;
    }
    plain->resize(static_cast<size_t>(written + last));
    return true;
}

bool plain_payload(const Key &key, const Entry &entry, std::vector<uint8_t> *plain) {
    if (!is_encrypted(entry.type)) {
        *plain = entry.payload;
        return true;
    }
    return decrypt(key, entry.payload, plain);
}

bool key_from_text(const std::string &text, Key *key) {
    if (text.size() != key->size()) {
        return false;
    }
    for (size_t i = 0; i < key->size(); ++i) {
        (*key)[i] = static_cast<uint8_t>(text[i]);
    }
    return true;
}

std::string key_md5(const Key &key) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(key.data(), key.size(), digest, &length, EVP_md5(), nullptr) != 1) {
        return "";
    }
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += kHex[digest[i] >> 4];
        text += kHex[digest[i] & 0xf];
    }
    return text;
}

} // namespace vexo_media
