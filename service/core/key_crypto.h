/// The device keys: generation of a new key and the md5 text a device announces for it.
#ifndef VEXO_CLOUD_KEY_CRYPTO_H
#define VEXO_CLOUD_KEY_CRYPTO_H

#include <string>

namespace vexo_cloud {

/// Characters in a device key; the key's ASCII bytes are the device's AES-128 key.
constexpr size_t kKeyLength = 16;

/// A new key of kKeyLength characters of A-Z a-z 0-9 from OpenSSL's random generator.
/// Throws std::runtime_error when the generator fails.
std::string generate_key();

/// The md5 of bytes as 32 lowercase hexadecimal characters.
std::string md5_hex(const std::string &bytes);

} // namespace vexo_cloud

#endif
