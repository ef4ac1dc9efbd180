// The certificates of a PEM file (an endpoints' CA file) as roots a server's chain may end in,
// beside the system's own. Windows only (the WinHTTP client); libcurl reads the file itself.
#pragma once

#include <memory>
#include <string>

namespace zelvanor::network {

class ExtraRoots {
 public:
  /// Null when the file cannot be read or holds no certificate.
  static std::unique_ptr<ExtraRoots> load(const std::string& pemFile);
  ~ExtraRoots();
  ExtraRoots(const ExtraRoots&) = delete;
  ExtraRoots& operator=(const ExtraRoots&) = delete;

  /// The server's certificate (a PCCERT_CONTEXT) has a chain for server authentication that the
  /// system trusts, or that ends in one of these certificates with nothing else wrong with it.
  bool accept(const void* serverCertificate) const;

 private:
  explicit ExtraRoots(void* store);
  void* store_;  // an HCERTSTORE in memory
};

}  // namespace zelvanor::network
