#include "platform/TlsIdentity.h"

#include <fmt/format.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <memory>

#include "platform/RegularFile.h"

namespace parlavox::platform {
namespace {

constexpr std::size_t kMaxPemSize = std::size_t{64} * 1024;
constexpr long kValidSeconds = 10L * 365 * 24 * 60 * 60;  // a venue's computer outlives a season

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

bool addExtension(X509* certificate, int nid, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

Result<TlsIdentity> create(const TlsNames& names) {
  const Key key(EVP_EC_gen("P-256"));
  const Certificate certificate(X509_new());
  const Bignum serial(BN_new());
  if (!key || !certificate || !serial) {
    return openSslFailure("couldn't make a key");
  }
  std::string alternatives;
  for (const std::string& dns : names.dns) {
    alternatives += (alternatives.empty() ? "DNS:" : ",DNS:") + dns;
  }
  for (const std::string& ip : names.ipv4) {
    alternatives += (alternatives.empty() ? "IP:" : ",IP:") + ip;
  }
  const std::string commonName = names.dns.empty() ? "parlavox" : names.dns.front();
  X509_NAME* subject = X509_get_subject_name(certificate.get());
  const bool made =
      X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
      // A random serial, so that a browser never meets two certificates with the same one.
      BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
      BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate.get())) != nullptr &&
      X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -60L * 60) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(certificate.get()), kValidSeconds) != nullptr &&
      X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1,
                                 0) == 1 &&
      X509_NAME_add_entry_by_txt(subject, "O", MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>("Parlavox"), -1, -1,
                                 0) == 1 &&
      X509_set_issuer_name(certificate.get(), subject) == 1 &&
      X509_set_pubkey(certificate.get(), key.get()) == 1 &&
      (alternatives.empty() ||
       addExtension(certificate.get(), NID_subject_alt_name, alternatives)) &&
      addExtension(certificate.get(), NID_basic_constraints, "critical,CA:FALSE") &&
      addExtension(certificate.get(), NID_key_usage, "critical,digitalSignature") &&
      addExtension(certificate.get(), NID_ext_key_usage, "serverAuth") &&
      X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0;
  if (!made) {
    return openSslFailure("couldn't make a certificate");
  }
  TlsIdentity identity{
      pemOf(certificate.get(), PEM_write_bio_X509),
      pemOf(key.get(),
            [](BIO* bio, EVP_PKEY* pkey) {
              return PEM_write_bio_PrivateKey(bio, pkey, nullptr, nullptr, 0, nullptr, nullptr);
            }),
      fingerprintOf(certificate.get()),
  };
  if (identity.certificatePem.empty() || identity.keyPem.empty()) {
    return openSslFailure("couldn't encode the certificate");
  }
  return identity;
}

// The identity in `certificatePem` and `keyPem`, checked to belong together.
Result<TlsIdentity> parse(std::string certificatePem, std::string keyPem) {
  const Bio certificateBio(
      BIO_new_mem_buf(certificatePem.data(), static_cast<int>(certificatePem.size())));
  const Bio keyBio(BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())));
  const Certificate certificate(PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr));
  const Key key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
  if (!certificate || !key) {
    return openSslFailure("not a PEM certificate and key");
  }
  if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    return openSslFailure("the key is not the certificate's");
  }
  std::string fingerprint = fingerprintOf(certificate.get());
  return TlsIdentity{std::move(certificatePem), std::move(keyPem), std::move(fingerprint)};
}

}  // namespace

Result<TlsIdentity> loadOrCreateTlsIdentity(const std::string& directory, const TlsNames& names) {
  const std::string certificatePath = directory + "/parlavox-cert.pem";
  const std::string keyPath = directory + "/parlavox-key.pem";
  auto certificate = readRegularFile(certificatePath, kMaxPemSize);
  auto key = readRegularFile(keyPath, kMaxPemSize);
  if (!certificate || !key) {
    return Failure{!certificate ? certificate.error() : key.error()};
  }
  if (*certificate && *key) {
    return parse(std::move(**certificate), std::move(**key));
  }
  if (*certificate || *key) {
    return Failure{fmt::format("{} without {}", *certificate ? certificatePath : keyPath,
                               *certificate ? keyPath : certificatePath)};
  }
  auto created = create(names);
  if (!created) {
    return created;
  }
  // The key first, private to its owner: a certificate without its key would be refused later.
  if (auto written = createRegularFile(keyPath, created->keyPem, 0600); !written) {
    return Failure{written.error()};
  }
  if (auto written = createRegularFile(certificatePath, created->certificatePem, 0644); !written) {
    return Failure{written.error()};
  }
  return created;
}

}  // namespace parlavox::platform
