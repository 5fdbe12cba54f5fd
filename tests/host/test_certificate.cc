#include "test_certificate.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>

namespace vexo_test {
namespace {

template <typename T, void (*Free)(T *)> struct Freer {
    void operator()(T *p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Freer<X509, X509_free>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, Freer<X509_EXTENSION, X509_EXTENSION_free>>;
using FilePtr = std::unique_ptr<FILE, int (*)(FILE *)>;

bool add_extension(X509 *cert, int nid, const char *value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
    ExtPtr ext(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value));
    return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

} // namespace

bool write_test_certificate(const std::string &dir, std::string *error,
                            const std::string &common_name) {
    KeyPtr key(EVP_EC_gen("P-256"));
    CertPtr cert(X509_new());
    if (!key || !cert) {
        *error = "cannot make a key";
        return false;
    }
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 24 * 3600);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME *name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(common_name.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(cert.get(), name);
    if (!add_extension(cert.get(), NID_subject_alt_name, "IP:127.0.0.1") ||
        !add_extension(cert.get(), NID_basic_constraints, "critical,CA:TRUE") ||
        X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) {
        *error = "cannot make the certificate";
        return false;
    }
    FilePtr key_file(std::fopen((dir + "/server.key").c_str(), "w"), &std::fclose);
    FilePtr cert_file(std::fopen((dir + "/server.crt").c_str(), "w"), &std::fclose);
    if (!key_file || !cert_file ||
        PEM_write_PrivateKey(key_file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) !=
            1 ||
        PEM_write_X509(cert_file.get(), cert.get()) != 1) {
        *error = "cannot write the key and certificate to " + dir;
        return false;
    }
    return true;
}

} // namespace vexo_test
