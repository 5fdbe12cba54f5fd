// The host kit's crypto: software AES-128-CBC and the kernel engine against vectors made with
// the openssl command line, the engine's piecewise padding, its argument checks, and MD5.
#include <cstring>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <string>
#include <vector>

#include "hw_aes_afalg.h"
#include "vexo_crypto.h"

namespace {

// Cipher vectors: the first N bytes of kPlain through `openssl enc -aes-128-cbc` with kKey, kIv.
const std::string kPlain = "Vexo cloud recording: every frame entry decrypts on its own with the "
                           "key and the fixed IV, so players can seek.";
constexpr uint8_t kKey[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                              0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
constexpr uint8_t kIv[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

struct CipherVector {
    uint32_t len;
    const char *hex;
};

const CipherVector kVectors[] = {
    {0, "c84af0b613435d5d9182801a9bd9320b"},
    {15, "58041f683cc3ef77e25282dfce8ba6a8"},
    {16, "6ec85c6719ab899a68352c2eb6f7477eecc8e56c9cfd55c91a8883e31b8662b4"},
    {17, "6ec85c6719ab899a68352c2eb6f7477e4834207d799f3c74ac048550546d6205"},
    {100, "6ec85c6719ab899a68352c2eb6f7477ee1831ced927c64887abe975ba02f5d8c440a29372b4bfb12251e4e"
          "e5942624ae4fa986b293d0471b782179eec33db05aade715c0b7f6e67049329d2b62b08f14437dc343b773"
          "f07875de6a0db34018ae7e46787d95c818a163752009be9b1d02"},
};

// MD5 of ten kPlain, made with: printf '%s' "<text>" | openssl md5.
constexpr const char *kMd5TenPlain = "e7c95b59d07499fbfa0a0249e8f20333";

constexpr uint8_t kCanary = 0xC5;

std::string hex(const uint8_t *data, size_t len) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < len; ++i) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

const uint8_t *plain_bytes() {
    return reinterpret_cast<const uint8_t *>(kPlain.data());
}

std::vector<uint8_t> pattern(size_t len) {
    std::vector<uint8_t> out(len);
    for (size_t i = 0; i < len; ++i) {
        out[i] = static_cast<uint8_t>(i * 131 + (i >> 8));
    }
    return out;
}

std::vector<uint8_t> software_encrypt(const uint8_t key[16], const std::vector<uint8_t> &plain) {
    uint8_t iv[16];
    std::memcpy(iv, kIv, 16);
    std::vector<uint8_t> out(plain.size() + 16);
    uint32_t out_len = 0;
    EXPECT_EQ(OpensslAES_CBC128_encrypt(plain.data(), static_cast<uint32_t>(plain.size()),
                                        out.data(), &out_len, key, iv),
              0);
    out.resize(out_len);
    return out;
}

/// Raw CBC without padding over the gathered parts: what the kernel does with one request.
bool raw_cbc(const uint8_t key[16], const uint8_t iv[16], const struct iovec *parts,
             size_t part_count, uint8_t *out, size_t len) {
    std::vector<uint8_t> in;
    for (size_t i = 0; i < part_count; ++i) {
        const uint8_t *base = static_cast<const uint8_t *>(parts[i].iov_base);
        in.insert(in.end(), base, base + parts[i].iov_len);
    }
    if (in.size() != len || len % 16 != 0) {
        return false;
    }
    EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
    int n = 0;
    bool ok = EVP_EncryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key, iv) == 1 &&
              EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
              EVP_EncryptUpdate(ctx, out, &n, in.data(), static_cast<int>(len)) == 1 &&
              static_cast<size_t>(n) == len;
    EVP_CIPHER_CTX_free(ctx);
    return ok;
}

/// An engine set up with kKey, or skips the test where the kernel has none.
class HardwareAes : public ::testing::Test {
  protected:
    void SetUp() override {
        std::memset(&ctx_, 0, sizeof(ctx_));
        ASSERT_EQ(vexo_hw_aes_crypt_init(&ctx_, kKey), 0);
        if (ctx_.engine == 0) {
            GTEST_SKIP() << "the kernel offers no AF_ALG skcipher cbc(aes) here (socket or bind "
                            "refused), so there is no hardware engine to test";
        }
    }
    void TearDown() override { EXPECT_EQ(vexo_hw_aes_crypt_uninit(&ctx_), 0); }

    std::vector<uint8_t> encrypt(const std::vector<uint8_t> &plain) {
        uint8_t iv[16];
        std::memcpy(iv, kIv, 16);
        std::vector<uint8_t> out(plain.size() + 16);
        uint32_t room = static_cast<uint32_t>(out.size());
        EXPECT_EQ(vexo_hw_aes_encrypt_cbc(&ctx_, iv, 128, plain.data(),
                                          static_cast<uint32_t>(plain.size()), out.data(), &room),
                  0);
        EXPECT_EQ(std::memcmp(iv, kIv, 16), 0) << "IV changed";
        out.resize(room);
        return out;
    }

    vexo_hw_aes_t ctx_;
};

// ---- software AES --------------------------------------------------------------------------

TEST(SoftwareAes, MatchesOpensslVectorsAndLeavesIvAndTrailingBytesAlone) {
    for (const CipherVector &v : kVectors) {
        SCOPED_TRACE(v.len);
        uint8_t iv[16];
        std::memcpy(iv, kIv, 16);
        std::vector<uint8_t> out(v.len + 32, kCanary);
        uint32_t out_len = 0;
        ASSERT_EQ(OpensslAES_CBC128_encrypt(plain_bytes(), v.len, out.data(), &out_len, kKey, iv),
                  0);
        EXPECT_EQ(out_len, (v.len / 16 + 1) * 16);
        EXPECT_EQ(hex(out.data(), out_len), v.hex);
        EXPECT_EQ(std::memcmp(iv, kIv, 16), 0) << "IV changed";
        EXPECT_EQ(out[out_len], kCanary) << "wrote past the cipher text";
    }
}

TEST(SoftwareAes, NullArgumentsAreRefused) {
    uint8_t iv[16] = {};
    uint8_t out[32];
    uint32_t out_len = 0;
    EXPECT_EQ(OpensslAES_CBC128_encrypt(nullptr, 4, out, &out_len, kKey, iv), -1);
    EXPECT_EQ(OpensslAES_CBC128_encrypt(plain_bytes(), 4, nullptr, &out_len, kKey, iv), -1);
    EXPECT_EQ(OpensslAES_CBC128_encrypt(plain_bytes(), 4, out, nullptr, kKey, iv), -1);
    EXPECT_EQ(OpensslAES_CBC128_encrypt(plain_bytes(), 4, out, &out_len, nullptr, iv), -1);
    EXPECT_EQ(OpensslAES_CBC128_encrypt(plain_bytes(), 4, out, &out_len, kKey, nullptr), -1);
    EXPECT_EQ(OpensslAES_CBC128_encrypt(nullptr, 0, out, &out_len, kKey, iv), 0);
    EXPECT_EQ(out_len, 16u);
}

// ---- the kernel engine -----------------------------------------------------------------------

TEST_F(HardwareAes, LargeFramesNewKeysAndASecondInitGiveTheSoftwareCipherText) {
    // Several kernel requests per frame, the padding in the last one or alone.
    for (size_t len : {hostkit::afalg::kChunkBytes - 1, hostkit::afalg::kChunkBytes,
                       3 * hostkit::afalg::kChunkBytes + 77}) {
        SCOPED_TRACE(len);
        EXPECT_EQ(encrypt(pattern(len)), software_encrypt(kKey, pattern(len)));
    }
    uint8_t key2[16];
    for (int i = 0; i < 16; ++i) {
        key2[i] = static_cast<uint8_t>(0x80 + i);
    }
    ASSERT_EQ(vexo_hw_aes_update_key(&ctx_, key2), 0);
    EXPECT_EQ(encrypt(pattern(1000)), software_encrypt(key2, pattern(1000)));

    // Init again without uninit closes the old socket (its number is reused) and re-keys.
    const uintptr_t first = ctx_.engine;
    ASSERT_EQ(vexo_hw_aes_crypt_init(&ctx_, kKey), 0);
    EXPECT_EQ(ctx_.engine, first);
    EXPECT_EQ(encrypt(pattern(40)), software_encrypt(kKey, pattern(40)));
}

TEST(HardwareAesArguments, BadCallsAreRefusedWithNothingWritten) {
    vexo_hw_aes_t ctx;
    std::memset(&ctx, 0, sizeof(ctx));
    uint8_t iv[16];
    std::memcpy(iv, kIv, 16);
    uint8_t out[64];
    uint32_t room = sizeof(out);
    EXPECT_EQ(vexo_hw_aes_crypt_init(nullptr, kKey), -1);
    EXPECT_EQ(vexo_hw_aes_crypt_init(&ctx, nullptr), -1);
    EXPECT_EQ(vexo_hw_aes_update_key(nullptr, kKey), -1);
    EXPECT_EQ(vexo_hw_aes_crypt_uninit(nullptr), -1);
    EXPECT_EQ(vexo_hw_aes_encrypt_cbc(nullptr, iv, 128, plain_bytes(), 4, out, &room), -1);

    // Without an engine: re-keying is a no-op, encrypting is refused.
    EXPECT_EQ(vexo_hw_aes_update_key(&ctx, kKey), 0);
    EXPECT_EQ(vexo_hw_aes_encrypt_cbc(&ctx, iv, 128, plain_bytes(), 4, out, &room), -1);
    EXPECT_EQ(room, 0u);

    // A word that is not an engine of this kit is never used as a socket.
    ctx.engine = 12345;
    room = sizeof(out);
    EXPECT_EQ(vexo_hw_aes_encrypt_cbc(&ctx, iv, 128, plain_bytes(), 4, out, &room), -1);
    EXPECT_EQ(vexo_hw_aes_update_key(&ctx, kKey), -1);
    EXPECT_EQ(vexo_hw_aes_crypt_uninit(&ctx), 0);
    EXPECT_EQ(ctx.engine, 0u);

    // Too little room or another key size: refused before any work.
    ASSERT_EQ(vexo_hw_aes_crypt_init(&ctx, kKey), 0);
    room = 31; // 16 bytes of plain text need 32
    EXPECT_EQ(vexo_hw_aes_encrypt_cbc(&ctx, iv, 128, plain_bytes(), 16, out, &room), -1);
    EXPECT_EQ(room, 0u);
    room = sizeof(out);
    EXPECT_EQ(vexo_hw_aes_encrypt_cbc(&ctx, iv, 256, plain_bytes(), 16, out, &room), -1);
    EXPECT_EQ(std::memcmp(iv, kIv, 16), 0);
    EXPECT_EQ(vexo_hw_aes_crypt_uninit(&ctx), 0);
}

// ---- the engine's padding and pieces, with libcrypto standing in for the kernel -----------

TEST(AfalgPieces, PaddedEncryptionInPiecesEqualsOneShot) {
    for (size_t chunk : {size_t{16}, size_t{40}, size_t{48}, hostkit::afalg::kChunkBytes}) {
        for (uint32_t len : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 47u, 48u, 100u, 1000u}) {
            SCOPED_TRACE(testing::Message() << "chunk " << chunk << " len " << len);
            const std::vector<uint8_t> plain = pattern(len);
            size_t requests = 0;
            bool bad_request = false;
            hostkit::afalg::CbcOperation op = [&](const uint8_t *iv, const struct iovec *parts,
                                                  size_t part_count, uint8_t *dst, size_t n) {
                ++requests;
                bad_request |= n == 0 || n > chunk || n % 16 != 0;
                return raw_cbc(kKey, iv, parts, part_count, dst, n);
            };
            const size_t padded = (len / 16 + 1) * 16;
            std::vector<uint8_t> out(padded);
            ASSERT_TRUE(
                hostkit::afalg::encrypt_padded(op, chunk, kIv, plain.data(), len, out.data()));
            EXPECT_EQ(out, software_encrypt(kKey, plain));
            EXPECT_FALSE(bad_request);
            const size_t whole_chunk = chunk - chunk % 16;
            EXPECT_EQ(requests, (padded + whole_chunk - 1) / whole_chunk);

            // In place: the plain text buffer receives the cipher text.
            std::vector<uint8_t> in_place = plain;
            in_place.resize(padded);
            ASSERT_TRUE(hostkit::afalg::encrypt_padded(op, chunk, kIv, in_place.data(), len,
                                                       in_place.data()));
            EXPECT_EQ(in_place, software_encrypt(kKey, plain));
        }
    }
}

TEST(AfalgPieces, AFailedRequestFailsTheEncryption) {
    int calls = 0;
    hostkit::afalg::CbcOperation second_fails = [&](const uint8_t *iv, const struct iovec *parts,
                                                    size_t part_count, uint8_t *dst, size_t n) {
        return ++calls < 2 && raw_cbc(kKey, iv, parts, part_count, dst, n);
    };
    std::vector<uint8_t> out(116);
    EXPECT_FALSE(hostkit::afalg::encrypt_padded(second_fails, 32, kIv, pattern(100).data(), 100,
                                                out.data()));
    EXPECT_EQ(calls, 2);
}

// ---- MD5 -------------------------------------------------------------------------------------

std::string md5_of_pieces(const std::string &text, const std::vector<size_t> &pieces) {
    uni_md5_ctx_t ctx;
    uni_md5_init(&ctx);
    size_t pos = 0;
    for (size_t piece : pieces) {
        uni_md5_update(&ctx, reinterpret_cast<const uint8_t *>(text.data()) + pos,
                       static_cast<uint32_t>(piece));
        pos += piece;
    }
    uni_md5_update(&ctx, reinterpret_cast<const uint8_t *>(text.data()) + pos,
                   static_cast<uint32_t>(text.size() - pos));
    uint8_t digest[16];
    uni_md5_final(&ctx, digest);
    return hex(digest, 16);
}

TEST(Md5, MatchesOpensslWholeAndInPieces) {
    std::string ten;
    for (int i = 0; i < 10; ++i) {
        ten += kPlain;
    }
    EXPECT_EQ(md5_of_pieces(ten, {}), kMd5TenPlain);
    // Pieces across and along the 64-byte block boundaries, empty ones included.
    EXPECT_EQ(md5_of_pieces(ten, {1, 63, 0, 64, 65, 127, 128, 129}), kMd5TenPlain);
    std::vector<size_t> bytewise(ten.size() - 1, 1);
    EXPECT_EQ(md5_of_pieces(ten, bytewise), kMd5TenPlain);
}

TEST(Md5, ContextNotStartedIsRefusedAndStartingItWorks) {
    uni_md5_ctx_t ctx;
    std::memset(&ctx, 0xA5, sizeof(ctx));
    uint8_t digest[16];
    std::memset(digest, kCanary, sizeof(digest));
    uni_md5_update(&ctx, reinterpret_cast<const uint8_t *>("abc"), 3);
    uni_md5_final(&ctx, digest);
    EXPECT_EQ(digest[0], kCanary);
    EXPECT_EQ(digest[15], kCanary);

    uni_md5_init(&ctx);
    uni_md5_update(&ctx, reinterpret_cast<const uint8_t *>("abc"), 3);
    uni_md5_final(&ctx, digest);
    EXPECT_EQ(hex(digest, 16), "900150983cd24fb0d6963f7d28e17f72");
}

} // namespace
