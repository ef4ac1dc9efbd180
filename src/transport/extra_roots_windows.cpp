// The extra roots of an endpoints' CA file, checked against a server's chain with the system's
// chain engine (the file's certificates are an additional store for building the chain).
#include <windows.h>
// windows.h first: wincrypt.h builds on its types.
#include <wincrypt.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "transport/extra_roots.hpp"

namespace zelvanor::network {

ExtraRoots::ExtraRoots(void* store) : store_(store) {}

ExtraRoots::~ExtraRoots() {
  CertCloseStore(static_cast<HCERTSTORE>(store_), 0);
}

std::unique_ptr<ExtraRoots> ExtraRoots::load(const std::string& path) {
  std::ifstream file(std::filesystem::path(std::u8string(path.begin(), path.end())),
                     std::ios::binary);
  if (!file) return nullptr;
  const std::string pem((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  HCERTSTORE store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
  if (!store) return nullptr;
  constexpr std::string_view kBegin = "-----BEGIN CERTIFICATE-----";
  constexpr std::string_view kEnd = "-----END CERTIFICATE-----";
  int added = 0;
  for (std::size_t at = pem.find(kBegin); at != std::string::npos; at = pem.find(kBegin, at)) {
    const std::size_t end = pem.find(kEnd, at);
    if (end == std::string::npos) break;
    const std::string block = pem.substr(at, end + kEnd.size() - at);
    at = end + kEnd.size();
    DWORD size = 0;
    if (!CryptStringToBinaryA(block.c_str(), static_cast<DWORD>(block.size()),
                              CRYPT_STRING_BASE64HEADER, nullptr, &size, nullptr, nullptr)) {
      continue;
    }
    std::vector<BYTE> der(size);
    if (CryptStringToBinaryA(block.c_str(), static_cast<DWORD>(block.size()),
                             CRYPT_STRING_BASE64HEADER, der.data(), &size, nullptr, nullptr) &&
        CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(), size,
                                         CERT_STORE_ADD_ALWAYS, nullptr)) {
      ++added;
    }
  }
  if (added == 0) {
    CertCloseStore(store, 0);
    return nullptr;
  }
  return std::unique_ptr<ExtraRoots>(new ExtraRoots(store));
}

// Revocation is not asked for, so its status is unknown and not held against the chain.
bool ExtraRoots::accept(const void* serverCertificate) const {
  const auto server = static_cast<PCCERT_CONTEXT>(serverCertificate);
  const auto extra = static_cast<HCERTSTORE>(store_);
  LPSTR serverAuth = const_cast<LPSTR>(szOID_PKIX_KP_SERVER_AUTH);
  CERT_CHAIN_PARA parameters{};
  parameters.cbSize = sizeof parameters;
  parameters.RequestedUsage.dwType = USAGE_MATCH_TYPE_AND;
  parameters.RequestedUsage.Usage.cUsageIdentifier = 1;
  parameters.RequestedUsage.Usage.rgpszUsageIdentifier = &serverAuth;
  PCCERT_CHAIN_CONTEXT chain = nullptr;
  if (!CertGetCertificateChain(nullptr, server, nullptr, extra, &parameters, 0, nullptr, &chain)) {
    return false;
  }
  const DWORD errors =
      chain->TrustStatus.dwErrorStatus &
      ~static_cast<DWORD>(CERT_TRUST_REVOCATION_STATUS_UNKNOWN | CERT_TRUST_IS_OFFLINE_REVOCATION);
  bool accepted = errors == CERT_TRUST_NO_ERROR;
  if (!accepted && errors == CERT_TRUST_IS_UNTRUSTED_ROOT && chain->cChain > 0) {
    const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[0];
    if (simple->cElement > 0) {
      PCCERT_CONTEXT root = simple->rgpElement[simple->cElement - 1]->pCertContext;
      if (PCCERT_CONTEXT found = CertFindCertificateInStore(extra, X509_ASN_ENCODING, 0,
                                                            CERT_FIND_EXISTING, root, nullptr)) {
        accepted = true;
        CertFreeCertificateContext(found);
      }
    }
  }
  CertFreeCertificateChain(chain);
  return accepted;
}

}  // namespace zelvanor::network
