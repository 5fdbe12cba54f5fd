// Decryption of entries and the key helpers, against OpenSSL's EVP encryption.
#include <gtest/gtest.h>

#include <memory>
#include <openssl/evp.h>

#include "media_builder.h"

namespace {

using media_test::Bytes;
using media_test::kTestKey;

struct CipherFree {
    void operator()(EVP_CIPHER_CTX *ctx) const { EVP_CIPHER_CTX_free(ctx); }
};

/// Encrypts whole blocks without adding padding, so a test can choose the last block freely.
Bytes encrypt_blocks(const Bytes &blocks) {
    std::unique_ptr<EVP_CIPHER_CTX, CipherFree> ctx(EVP_CIPHER_CTX_new());
    Bytes out(blocks.size() + 16);
    int written = 0;
    int last = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, kTestKey.data(),
                                 kitcommon::kMediaIv),
              1);
    EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
    EXPECT_EQ(EVP_EncryptUpdate(ctx.get(), out.data(), &written, blocks.data(),
                                static_cast<int>(blocks.size())),
              1);
    EXPECT_EQ(EVP_EncryptFinal_ex(ctx.get(), out.data() + written, &last), 1);
    out.resize(static_cast<size_t>(written + last));
    return out;
}

Bytes block_ending(std::initializer_list<uint8_t> tail) {
    Bytes block(16, 0x41);
    std::copy(tail.begin(), tail.end(), block.end() - static_cast<std::ptrdiff_t>(tail.size()));
    return block;
}

TEST(MediaDecrypt, RoundTripsEveryLengthAroundTheBlockSize) {
    for (size_t length : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 1000u}) {
        SCOPED_TRACE(length);
        Bytes plain(length);
        for (size_t i = 0; i < length; ++i) {
            plain[i] = static_cast<uint8_t>(i * 7 + 3);
        }
        const Bytes cipher = media_test::encrypt(kTestKey, plain);
        EXPECT_EQ(cipher.size(), (length / 16 + 1) * 16);
        Bytes out{0xee};
        ASSERT_TRUE(vexo_media::decrypt(kTestKey, cipher, &out));
        EXPECT_EQ(out, plain);
        // Another key fails or gives other bytes.
        vexo_media::Key other = kTestKey;
        other[length % 16] ^= 1;
        EXPECT_FALSE(vexo_media::decrypt(other, cipher, &out) && out == plain);
    }
}

TEST(MediaDecrypt, RefusesBadLengthsAndBadPadding) {
    const Bytes good = media_test::encrypt(kTestKey, Bytes(20, 9));
    struct Case {
        const char *name;
        Bytes cipher;
    } cases[] = {
        {"zero length", {}},
        {"length not a multiple of 16", Bytes(good.begin(), good.end() - 1)},
        {"one byte", Bytes(1, 0)},
        {"pad byte zero", encrypt_blocks(block_ending({0x00}))},
        {"pad byte over the block size", encrypt_blocks(block_ending({0x11}))},
        {"pad bytes that disagree", encrypt_blocks(block_ending({0x02, 0x03, 0x03}))},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Bytes out{1, 2, 3};
        EXPECT_FALSE(vexo_media::decrypt(kTestKey, c.cipher, &out));
        EXPECT_TRUE(out.empty());
    }
    Bytes out;
    EXPECT_TRUE(
        vexo_media::decrypt(kTestKey, encrypt_blocks(block_ending({0x03, 0x03, 0x03})), &out));
    EXPECT_EQ(out, Bytes(13, 0x41));
}

TEST(MediaDecrypt, PlainPayloadDecryptsOnlyKeyFramesAndAudio) {
    const Bytes plain = {0, 0, 0, 1, 0x65, 1, 2};
    for (uint32_t type : {vexo_media::kTypeKey, vexo_media::kTypeAudio, vexo_media::kTypeP}) {
        vexo_media::Entry e;
        e.type = type;
        e.payload = type == vexo_media::kTypeP ? plain : media_test::encrypt(kTestKey, plain);
        Bytes out;
        ASSERT_TRUE(vexo_media::plain_payload(kTestKey, e, &out)) << type;
        EXPECT_EQ(out, plain) << type;
    }
}

TEST(MediaKey, TextAndDigest) {
    vexo_media::Key key{};
    EXPECT_FALSE(vexo_media::key_from_text("0123456789abcde", &key));
    EXPECT_FALSE(vexo_media::key_from_text("0123456789abcdef0", &key));
    ASSERT_TRUE(vexo_media::key_from_text("0123456789abcdef", &key));
    EXPECT_EQ(key, kTestKey);
    EXPECT_EQ(vexo_media::key_md5(key), "4032af8d61035123906e58e067140cc5");
}

} // namespace
