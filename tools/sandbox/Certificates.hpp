#pragma once

#include <filesystem>

namespace tessrakite::sandbox {

/// PEM files of the sandbox's local certificate authority and of its server certificate.
struct CertificateFiles {
    std::filesystem::path authority;    // ca.pem: what clients trust (TESSRA_CA_BUNDLE)
    std::filesystem::path certificate;  // server.pem: for 127.0.0.1 and localhost
    std::filesystem::path key;          // server.key
};

/// Makes, or reuses when still valid, a certificate authority and a server certificate signed
/// by it under `folder` (ca.pem, ca.key, server.pem, server.key). Keys are written owner-only.
/// Throws std::runtime_error when the files cannot be made.
CertificateFiles prepareCertificates(const std::filesystem::path& folder);

}  // namespace tessrakite::sandbox
