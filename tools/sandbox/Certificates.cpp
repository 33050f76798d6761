#include "Certificates.hpp"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace tessrakite::sandbox {
namespace {

namespace fs = std::filesystem;

template <auto Free>
struct Deleter {
    template <class T>
    void operator()(T* p) const noexcept {
        Free(p);
    }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Bio = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using BigNumber = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;

constexpr long kDay = 24 * 60 * 60;
constexpr long kAuthorityDays = 3650;
constexpr long kServerDays = 397;
// Reissue a little before expiry so a long-lived state folder never serves an expired chain.
constexpr long kRenewMarginDays = 7;

[[noreturn]] void fail(const std::string& what) {
    const unsigned long code = ERR_get_error();
    std::string message = what;
    if (code != 0) {
        std::array<char, 256> text{};
        ERR_error_string_n(code, text.data(), text.size());
        message += ": ";
        message += text.data();
    }
    ERR_clear_error();
    throw std::runtime_error(message);
}

Key newKey() {
    // P-256: quick to generate at every fresh start, accepted by every TLS stack we meet.
    Key key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    if (!key) fail("cannot generate a key");
    return key;
}

Key readKey(const fs::path& path) {
    Bio bio(BIO_new_file(path.c_str(), "r"));
    if (!bio) return {};
    return Key(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr));
}

Certificate readCertificate(const fs::path& path) {
    Bio bio(BIO_new_file(path.c_str(), "r"));
    if (!bio) return {};
    return Certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

bool validForAWhile(X509* cert) {
    std::time_t renewAt = std::time(nullptr) + kRenewMarginDays * kDay;
    return X509_cmp_current_time(X509_get0_notBefore(cert)) < 0 &&
           X509_cmp_time(X509_get0_notAfter(cert), &renewAt) > 0;
}

bool usableAuthority(X509* ca, EVP_PKEY* key) {
    return X509_check_private_key(ca, key) == 1 && X509_check_ca(ca) >= 1 && validForAWhile(ca);
}

bool usableServer(X509* cert, EVP_PKEY* key, X509* ca) {
    return X509_check_private_key(cert, key) == 1 && X509_check_issued(ca, cert) == X509_V_OK &&
           X509_verify(cert, X509_get0_pubkey(ca)) == 1 && validForAWhile(cert) &&
           X509_check_ip_asc(cert, "127.0.0.1", 0) == 1 && X509_check_host(cert, "localhost", 0, 0, nullptr) == 1;
}

void addNameEntry(X509_NAME* name, const char* field, const char* value) {
    if (X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value), -1, -1,
                                   0) != 1)
        fail("cannot set a certificate name");
}

/// Builds and signs a certificate; `issuer` null means self-signed.
Certificate makeCertificate(const char* commonName, EVP_PKEY* subjectKey, X509* issuer, EVP_PKEY* issuerKey,
                            long days, const std::vector<std::pair<int, const char*>>& extensions) {
    Certificate cert(X509_new());
    if (!cert || X509_set_version(cert.get(), X509_VERSION_3) != 1) fail("cannot create a certificate");

    // Random positive serials keep clients from confusing certificates of different state folders.
    std::array<unsigned char, 16> serial{};
    if (RAND_bytes(serial.data(), static_cast<int>(serial.size())) != 1) fail("cannot draw a serial number");
    serial[0] = static_cast<unsigned char>((serial[0] & 0x7f) | 0x01);
    BigNumber number(BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr));
    if (!number || !BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(cert.get())))
        fail("cannot set the serial number");

    // Back-dated an hour so small clock differences do not make it "not yet valid".
    if (!X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) ||
        !X509_gmtime_adj(X509_getm_notAfter(cert.get()), days * kDay))
        fail("cannot set the validity period");

    X509_NAME* subject = X509_get_subject_name(cert.get());
    addNameEntry(subject, "O", "TessraKite sandbox");
    addNameEntry(subject, "CN", commonName);
    if (X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : subject) != 1 ||
        X509_set_pubkey(cert.get(), subjectKey) != 1)
        fail("cannot set the issuer or the public key");

    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer ? issuer : cert.get(), cert.get(), nullptr, nullptr, 0);
    for (const auto& [nid, value] : extensions) {
        Extension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
        if (!extension || X509_add_ext(cert.get(), extension.get(), -1) != 1)
            fail(std::string("cannot add the extension ") + value);
    }
    if (X509_sign(cert.get(), issuerKey, EVP_sha256()) <= 0) fail("cannot sign the certificate");
    return cert;
}

std::string memoryText(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    if (size <= 0 || data == nullptr) fail("cannot encode PEM");
    return std::string(data, static_cast<std::size_t>(size));
}

std::string pem(X509* cert) {
    Bio bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) fail("cannot encode a certificate");
    return memoryText(bio.get());
}

std::string pem(EVP_PKEY* key) {
    Bio bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1)
        fail("cannot encode a key");
    return memoryText(bio.get());
}

/// Writes through a temporary file and a rename, so a reader never sees half a PEM.
void writeFile(const fs::path& path, const std::string& content, mode_t mode) {
    const fs::path temporary = path.string() + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "cannot write " + temporary.string());
    std::size_t written = 0;
    while (written < content.size()) {
        const ssize_t n = ::write(fd, content.data() + written, content.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int error = errno;
            ::close(fd);
            throw std::system_error(error, std::generic_category(), "cannot write " + temporary.string());
        }
        written += static_cast<std::size_t>(n);
    }
    // The mode given to open() is filtered by the umask; keys must stay owner-only regardless.
    const bool modeSet = ::fchmod(fd, mode) == 0;
    const int error = errno;
    if (::close(fd) != 0 || !modeSet)
        throw std::system_error(modeSet ? errno : error, std::generic_category(), "cannot write " + temporary.string());
    fs::rename(temporary, path);
}

}  // namespace

CertificateFiles prepareCertificates(const fs::path& folder) {
    fs::create_directories(folder);
    fs::permissions(folder, fs::perms::owner_all, fs::perm_options::replace);

    const CertificateFiles files{folder / "ca.pem", folder / "server.pem", folder / "server.key"};
    const fs::path authorityKeyPath = folder / "ca.key";

    Key authorityKey = readKey(authorityKeyPath);
    Certificate authority = readCertificate(files.authority);
    bool newAuthority = false;
    if (!authorityKey || !authority || !usableAuthority(authority.get(), authorityKey.get())) {
        authorityKey = newKey();
        authority = makeCertificate("TessraKite Sandbox CA", authorityKey.get(), nullptr, authorityKey.get(),
                                    kAuthorityDays,
                                    {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                                     {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                     {NID_subject_key_identifier, "hash"}});
        // Key first: a crash in between leaves a mismatched pair, which the next start replaces.
        writeFile(authorityKeyPath, pem(authorityKey.get()), 0600);
        writeFile(files.authority, pem(authority.get()), 0644);
        newAuthority = true;
    }

    Key serverKey = newAuthority ? Key{} : readKey(files.key);
    Certificate server = newAuthority ? Certificate{} : readCertificate(files.certificate);
    if (!serverKey || !server || !usableServer(server.get(), serverKey.get(), authority.get())) {
        serverKey = newKey();
        server = makeCertificate("localhost", serverKey.get(), authority.get(), authorityKey.get(), kServerDays,
                                 {{NID_basic_constraints, "critical,CA:FALSE"},
                                  {NID_key_usage, "critical,digitalSignature"},
                                  {NID_ext_key_usage, "serverAuth"},
                                  {NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"},
                                  {NID_subject_key_identifier, "hash"},
                                  {NID_authority_key_identifier, "keyid:always"}});
        writeFile(files.key, pem(serverKey.get()), 0600);
        writeFile(files.certificate, pem(server.get()), 0644);
    }
    // Failed reads of missing files leave errors queued; they must not leak into TLS diagnostics.
    ERR_clear_error();
    return files;
}

}  // namespace tessrakite::sandbox
