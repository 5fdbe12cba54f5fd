// A self-signed certificate for 127.0.0.1, made with OpenSSL for TLS tests.
#ifndef VEXO_TESTS_HOST_TEST_CERTIFICATE_H
#define VEXO_TESTS_HOST_TEST_CERTIFICATE_H

#include <string>

namespace vexo_test {

/// Writes a new P-256 key and a self-signed certificate for the IP address 127.0.0.1, valid
/// for a day, as PEM files <dir>/server.key and <dir>/server.crt. False with *error on
/// failure. Certificates that are to be trusted side by side need different common names.
bool write_test_certificate(const std::string &dir, std::string *error,
                            const std::string &common_name = "127.0.0.1");

} // namespace vexo_test

#endif
