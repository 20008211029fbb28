#include "platform/TlsIdentity.h"

#include <fmt/format.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/Interfaces.h"
#include "platform/RegularFile.h"

namespace parlavox::platform {
namespace {

constexpr std::size_t kMaxPemSize = std::size_t{64} * 1024;
constexpr long kDay = 24L * 60 * 60;
// A venue's computer outlives a season; each device trusts the authority once, for as long.
constexpr long kAuthorityValidSeconds = kDay * 365 * 10;
// Within the longest that Apple's devices accept from an authority their user trusted (398 days,
// counted from the backdated start).
constexpr long kStationValidSeconds = 396 * kDay;
// A station certificate this close to its end is issued again, at a start or an address change.
constexpr long kRenewBeforeSeconds = 30 * kDay;
constexpr const char* kOrganization = "Parlavox";

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* pointer) const {
    Free(pointer);
  }
};
using Bio = std::unique_ptr<BIO, Deleter<BIO_free>>;
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
using Bignum = std::unique_ptr<BIGNUM, Deleter<BN_free>>;

// OpenSSL's own description of its last failure, for the operator.
Failure openSslFailure(std::string_view what) {
  const unsigned long code = ERR_get_error();
  ERR_clear_error();
  std::array<char, 256> text{};
  ERR_error_string_n(code, text.data(), text.size());
  return Failure{fmt::format("{}: {}", what, code != 0 ? text.data() : "unknown error")};
}

std::string pemOf(auto* object, auto write) {
  const Bio bio(BIO_new(BIO_s_mem()));
  if (!bio || write(bio.get(), object) != 1) {
    return {};
  }
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

std::string fingerprintOf(X509* certificate) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  X509_digest(certificate, EVP_sha256(), digest.data(), &size);
  std::string out;
  for (unsigned int i = 0; i < size; ++i) {
    out += fmt::format("{}{:02X}", i == 0 ? "" : ":", digest[i]);
  }
  return out;
}

std::string derOf(X509* certificate) {
  unsigned char* data = nullptr;
  const int size = i2d_X509(certificate, &data);
  std::string der =
      size > 0 ? std::string(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size))
               : std::string();
  OPENSSL_free(data);
  return der;
}

std::string certificatePemOf(X509* certificate) {
  return pemOf(certificate, PEM_write_bio_X509);
}

std::string keyPemOf(EVP_PKEY* key) {
  return pemOf(key, [](BIO* bio, EVP_PKEY* pkey) {
    return PEM_write_bio_PrivateKey(bio, pkey, nullptr, nullptr, 0, nullptr, nullptr);
  });
}

Certificate readCertificate(const std::string& pem) {
  const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return Certificate(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

Key readKey(const std::string& pem) {
  const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return Key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
}

bool addExtension(X509* certificate, X509* issuer, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool addName(X509_NAME* name, const char* field, const std::string& value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1,
                                    0) == 1;
}

using Extensions = std::vector<std::pair<int, std::string>>;

// A certificate for `key` named `commonName`, signed by `issuerKey` as `issuer` (by itself, when
// that is null). Null when OpenSSL could not make it.
Certificate sign(EVP_PKEY* key, const std::string& commonName, X509* issuer, EVP_PKEY* issuerKey,
                 long validSeconds, const Extensions& extensions) {
  Certificate certificate(X509_new());
  const Bignum serial(BN_new());
  if (!certificate || !serial) {
    return nullptr;
  }
  X509* self = certificate.get();
  X509_NAME* subject = X509_get_subject_name(self);
  bool made = X509_set_version(self, X509_VERSION_3) == 1 &&
              // A random serial, so that a browser never meets two certificates with the same one.
              BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
              BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(self)) != nullptr &&
              X509_gmtime_adj(X509_getm_notBefore(self), -60L * 60) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(self), validSeconds) != nullptr &&
              addName(subject, "CN", commonName) && addName(subject, "O", kOrganization) &&
              X509_set_issuer_name(
                  self, issuer != nullptr ? X509_get_subject_name(issuer) : subject) == 1 &&
              X509_set_pubkey(self, key) == 1;
  for (const auto& [nid, value] : extensions) {
    made = made && addExtension(self, issuer != nullptr ? issuer : self, nid, value);
  }
  made = made && X509_sign(self, issuerKey, EVP_sha256()) > 0;
  return made ? std::move(certificate) : nullptr;
}

// The server's own certificate authority.
struct Authority {
  Certificate certificate;
  Key key;
};

Authority makeAuthority() {
  Key key(EVP_EC_gen("P-256"));
  if (!key) {
    return {};
  }
  const std::string host = hostName();
  // Named for its computer, so that a device that trusts more than one venue's tells them apart.
  const std::string name =
      "Parlavox crew station CA" + (host.empty() ? std::string() : " (" + host + ")");
  Certificate certificate = sign(key.get(), name, nullptr, key.get(), kAuthorityValidSeconds,
                                 {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                                  {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                  {NID_subject_key_identifier, "hash"},
                                  {NID_authority_key_identifier, "keyid:always"}});
  return {std::move(certificate), std::move(key)};
}

bool signedBy(X509* certificate, X509* issuer) {
  const bool yes =
      X509_NAME_cmp(X509_get_issuer_name(certificate), X509_get_subject_name(issuer)) == 0 &&
      X509_verify(certificate, X509_get0_pubkey(issuer)) == 1;
  ERR_clear_error();
  return yes;
}

// Whether `certificate` is the server's own: signed by its authority, or made self-signed by a
// version that had none.
bool ours(X509* certificate, const Authority* authority) {
  if (authority != nullptr && signedBy(certificate, authority->certificate.get())) {
    return true;
  }
  std::array<char, 64> organization{};
  return X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_organizationName,
                                   organization.data(), organization.size()) > 0 &&
         std::string_view(organization.data()) == kOrganization &&
         signedBy(certificate, certificate);
}

// Whether the station may go on presenting `certificate`: its key's, for every name in `names`,
// and not about to expire.
bool serves(X509* certificate, EVP_PKEY* key, const TlsNames& names) {
  std::time_t renewBy = std::time(nullptr) + kRenewBeforeSeconds;
  bool fits = X509_check_private_key(certificate, key) == 1 &&
              X509_cmp_time(X509_get0_notAfter(certificate), &renewBy) > 0;
  for (const std::string& dns : names.dns) {
    fits = fits && X509_check_host(certificate, dns.data(), dns.size(), 0, nullptr) == 1;
  }
  for (const std::string& ip : names.ipv4) {
    fits = fits && X509_check_ip_asc(certificate, ip.c_str(), 0) == 1;
  }
  ERR_clear_error();
  return fits;
}

// Writes `path` anew: whole beside it first, then renamed over it, so that a cut never leaves it
// half written.
Result<void> replaceRegularFile(const std::string& path, std::string_view bytes, unsigned mode) {
  const std::string fresh = path + ".new";
  ::unlink(fresh.c_str());  // what an earlier cut left
  if (auto written = createRegularFile(fresh, bytes, mode); !written) {
    return Failure{fresh + ": " + written.error()};
  }
  if (::rename(fresh.c_str(), path.c_str()) != 0) {
    const int error = errno;
    ::unlink(fresh.c_str());
    return Failure{path + ": " + std::error_code(error, std::generic_category()).message()};
  }
  return {};
}

using PemPair = std::pair<std::string, std::string>;  // a certificate and its key

// The PEM pair at `certificatePath` and `keyPath`: none when neither exists, a failure for half
// a pair.
Result<std::optional<PemPair>> readPair(const std::string& certificatePath,
                                        const std::string& keyPath) {
  auto certificate = readRegularFile(certificatePath, kMaxPemSize);
  auto key = readRegularFile(keyPath, kMaxPemSize);
  if (!certificate || !key) {
    return Failure{!certificate ? certificate.error() : key.error()};
  }
  if (*certificate && *key) {
    return std::optional(PemPair(std::move(**certificate), std::move(**key)));
  }
  if (*certificate || *key) {
    return Failure{fmt::format("{} without {}", *certificate ? certificatePath : keyPath,
                               *certificate ? keyPath : certificatePath)};
  }
  return std::optional<PemPair>();
}

// The authority kept as `pem`.
Result<Authority> loadAuthority(const PemPair& pem) {
  Authority authority{readCertificate(pem.first), readKey(pem.second)};
  if (!authority.certificate || !authority.key) {
    return openSslFailure("parlavox-ca.pem: not a PEM certificate and key");
  }
  if (X509_check_private_key(authority.certificate.get(), authority.key.get()) != 1) {
    return openSslFailure("parlavox-ca.pem: the key is not the certificate's");
  }
  return authority;
}

// A new authority, kept in `directory` from now on.
Result<Authority> createAuthority(const std::string& directory) {
  const std::string certificatePath = directory + "/parlavox-ca.pem";
  const std::string keyPath = directory + "/parlavox-ca-key.pem";
  Authority authority = makeAuthority();
  const std::string certificatePem =
      authority.certificate ? certificatePemOf(authority.certificate.get()) : "";
  const std::string keyPem = authority.key ? keyPemOf(authority.key.get()) : "";
  if (certificatePem.empty() || keyPem.empty()) {
    return openSslFailure("couldn't make a certificate authority");
  }
  // The key first, private to its owner: a certificate without its key would be refused later.
  if (auto written = createRegularFile(keyPath, keyPem, 0600); !written) {
    return Failure{keyPath + ": " + written.error()};
  }
  if (auto written = createRegularFile(certificatePath, certificatePem, 0644); !written) {
    return Failure{certificatePath + ": " + written.error()};
  }
  return authority;
}

// A station certificate for `names`, signed by `authority`.
Result<PemPair> issue(const Authority& authority, const TlsNames& names) {
  const Key key(EVP_EC_gen("P-256"));
  if (!key) {
    return openSslFailure("couldn't make a key");
  }
  std::string alternatives;
  for (const std::string& dns : names.dns) {
    alternatives += (alternatives.empty() ? "DNS:" : ",DNS:") + dns;
  }
  for (const std::string& ip : names.ipv4) {
    alternatives += (alternatives.empty() ? "IP:" : ",IP:") + ip;
  }
  Extensions extensions{{NID_basic_constraints, "critical,CA:FALSE"},
                        {NID_key_usage, "critical,digitalSignature"},
                        {NID_ext_key_usage, "serverAuth"},
                        {NID_subject_key_identifier, "hash"},
                        {NID_authority_key_identifier, "keyid:always"}};
  if (!alternatives.empty()) {
    extensions.emplace_back(NID_subject_alt_name, alternatives);
  }
  const Certificate certificate =
      sign(key.get(), names.dns.empty() ? "parlavox" : names.dns.front(),
           authority.certificate.get(), authority.key.get(), kStationValidSeconds, extensions);
  std::string certificatePem = certificate ? certificatePemOf(certificate.get()) : "";
  std::string keyPem = keyPemOf(key.get());
  if (certificatePem.empty() || keyPem.empty()) {
    return openSslFailure("couldn't make a certificate");
  }
  return PemPair(std::move(certificatePem), std::move(keyPem));
}

// An operator's own pair, as it is, checked to belong together.
Result<TlsIdentity> operatorsOwn(X509* certificate, EVP_PKEY* key, PemPair pem) {
  if (X509_check_private_key(certificate, key) != 1) {
    return openSslFailure("the key is not the certificate's");
  }
  std::string secret = pem.second;
  return TlsIdentity{
      std::move(pem.first), std::move(pem.second), fingerprintOf(certificate), "", "", false,
      std::move(secret)};
}

}  // namespace

Result<TlsIdentity> loadOrCreateTlsIdentity(const std::string& directory, const TlsNames& names) {
  const std::string certificatePath = directory + "/parlavox-cert.pem";
  const std::string keyPath = directory + "/parlavox-key.pem";
  auto station = readPair(certificatePath, keyPath);
  if (!station) {
    return Failure{station.error()};
  }
  auto keptAuthority = readPair(directory + "/parlavox-ca.pem", directory + "/parlavox-ca-key.pem");
  if (!keptAuthority) {
    return Failure{keptAuthority.error()};
  }
  std::optional<Authority> authority;
  if (*keptAuthority) {
    auto loaded = loadAuthority(**keptAuthority);
    if (!loaded) {
      return Failure{loaded.error()};
    }
    authority = std::move(*loaded);
  }
  Certificate certificate;
  Key key;
  if (*station) {
    certificate = readCertificate((*station)->first);
    key = readKey((*station)->second);
    if (!certificate || !key) {
      return openSslFailure("not a PEM certificate and key");
    }
    // A certificate that is not the server's own is used as it is, and no authority is made.
    if (!ours(certificate.get(), authority ? &*authority : nullptr)) {
      return operatorsOwn(certificate.get(), key.get(), std::move(**station));
    }
  }
  if (!authority) {
    auto made = createAuthority(directory);
    if (!made) {
      return Failure{made.error()};
    }
    authority = std::move(*made);
  }
  X509* issuer = authority->certificate.get();
  TlsIdentity identity{
      "", "", "", derOf(issuer), fingerprintOf(issuer), false, keyPemOf(authority->key.get())};
  if (certificate && signedBy(certificate.get(), issuer) &&
      serves(certificate.get(), key.get(), names)) {
    identity.certificatePem = std::move((*station)->first);
    identity.keyPem = std::move((*station)->second);
  } else {
    auto issued = issue(*authority, names);
    if (!issued) {
      return Failure{issued.error()};
    }
    // The key first: a cut between the two leaves the authority's old certificate beside a key
    // that is not its own, which the next start issues again for.
    if (auto written = replaceRegularFile(keyPath, issued->second, 0600); !written) {
      return Failure{written.error()};
    }
    if (auto written = replaceRegularFile(certificatePath, issued->first, 0644); !written) {
      return Failure{written.error()};
    }
    identity.certificatePem = std::move(issued->first);
    identity.keyPem = std::move(issued->second);
    identity.issued = true;
    certificate = readCertificate(identity.certificatePem);
  }
  identity.fingerprint = fingerprintOf(certificate.get());
  // The chain as it is served: a device that trusts the authority needs nothing more.
  identity.certificatePem += certificatePemOf(issuer);
  return identity;
}

}  // namespace parlavox::platform
