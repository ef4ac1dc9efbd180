// The collector's own TLS identity: one self-signed certificate for 127.0.0.1, ::1 and localhost.
#pragma once

#include <filesystem>
#include <string>

namespace zelvanor::collector {

struct CertificateFiles {
  std::filesystem::path certificate;
  std::filesystem::path privateKey;
};

/// Makes cert.pem and key.pem (0600) in `directory` unless both already exist. The certificate is
/// its own root, so the same file is what a client adds to its trusted roots.
bool ensureCertificate(const std::filesystem::path& directory, CertificateFiles& files,
                       std::string& error);
/// Makes both files anew, replacing what is there.
bool renewCertificate(const std::filesystem::path& directory, CertificateFiles& files,
                      std::string& error);

}  // namespace zelvanor::collector
