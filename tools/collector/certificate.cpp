#include "certificate.hpp"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

namespace zelvanor::collector {
namespace {

template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* p) const {
    Free(p);
  }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509_free>>;

bool addExtension(X509* cert, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (extension == nullptr) return false;
  const bool added = X509_add_ext(cert, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

// Writes a temporary file with the final mode, then renames it into place: a crash leaves the
// old file or the new one, and the key is never readable by others, not even for a moment.
bool writePem(const std::filesystem::path& path, mode_t mode, const auto& write) {
  const std::string temporary = path.string() + ".new";
  const int fd =
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) return false;
  // A file left over from an earlier attempt keeps its old mode through open.
  if (::fchmod(fd, mode) != 0) {
    ::close(fd);
    return false;
  }
  FILE* file = ::fdopen(fd, "w");
  if (file == nullptr) {
    ::close(fd);
    return false;
  }
  const bool written = write(file) && std::fflush(file) == 0 && ::fsync(fd) == 0;
  if (std::fclose(file) != 0 || !written || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool ensureCertificate(const std::filesystem::path& directory, CertificateFiles& files,
                       std::string& error) {
  files.certificate = directory / "cert.pem";
  files.privateKey = directory / "key.pem";
  std::error_code ec;
  if (std::filesystem::exists(files.certificate, ec) &&
      std::filesystem::exists(files.privateKey, ec)) {
    return true;
  }
  return renewCertificate(directory, files, error);
}

bool renewCertificate(const std::filesystem::path& directory, CertificateFiles& files,
                      std::string& error) {
  files.certificate = directory / "cert.pem";
  files.privateKey = directory / "key.pem";
  std::error_code ec;
  KeyPtr key(EVP_EC_gen("P-256"));
  CertPtr cert(X509_new());
  if (!key || !cert) {
    error = "cannot create a key pair";
    return false;
  }
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), static_cast<long>(::time(nullptr)));
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60L * 60);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 60L * 60 * 24 * 825);
  X509_set_pubkey(cert.get(), key.get());
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("zelvanor-collector"), -1, -1,
                             0);
  X509_set_issuer_name(cert.get(), name);
  const bool extended =
      addExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE") &&
      addExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign") &&
      addExtension(cert.get(), NID_ext_key_usage, "serverAuth") &&
      addExtension(cert.get(), NID_subject_key_identifier, "hash") &&
      addExtension(cert.get(), NID_subject_alt_name, "IP:127.0.0.1,IP:::1,DNS:localhost");
  if (!extended || X509_sign(cert.get(), key.get(), EVP_sha256()) == 0) {
    error = "cannot sign the certificate";
    return false;
  }

  std::filesystem::create_directories(directory, ec);
  const bool keyWritten = writePem(files.privateKey, 0600, [&](FILE* f) {
    return PEM_write_PrivateKey(f, key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  });
  const bool certWritten = keyWritten && writePem(files.certificate, 0644, [&](FILE* f) {
                             return PEM_write_X509(f, cert.get()) == 1;
                           });
  if (!certWritten) {
    error = "cannot write the certificate files in " + directory.string();
    std::filesystem::remove(files.privateKey, ec);
    std::filesystem::remove(files.certificate, ec);
    return false;
  }
  return true;
}

}  // namespace zelvanor::collector
