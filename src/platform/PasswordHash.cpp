#include "platform/PasswordHash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <charconv>
#include <vector>

namespace parlavox::platform {
namespace {

// About 25 ms and 8 MiB for one check on a small backstage computer: the server checks on its
// event loop, once per operator's browser or scraper, since an accepted one is remembered.
constexpr std::uint64_t kCost = 1U << 13U;
constexpr std::uint64_t kBlockSize = 8;
constexpr std::uint64_t kParallel = 1;
constexpr std::size_t kSaltBytes = 16;
constexpr std::size_t kHashBytes = 32;
// What a hash's own parameters may ask of a check, at most.
constexpr std::uint64_t kMostMemory = 64ULL << 20U;
constexpr std::uint64_t kMostParallel = 4;

struct Parameters {
  std::uint64_t n = 0;
  std::uint64_t r = 0;
  std::uint64_t p = 0;
  std::string salt;
  std::string hash;
};

std::optional<std::uint64_t> number(std::string_view text) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) {
    return std::nullopt;
  }
  return value;
}

// Scrypt's memory for these parameters, as OpenSSL counts it.
std::uint64_t memoryFor(std::uint64_t n, std::uint64_t r, std::uint64_t p) {
  return 128 * r * (n + 2 + p);
}

std::optional<Parameters> parse(std::string_view stored) {
  while (!stored.empty() && (stored.back() == '\n' || stored.back() == '\r')) {
    stored.remove_suffix(1);
  }
  std::vector<std::string_view> fields;
  while (true) {
    const auto dollar = stored.find('$');
    fields.push_back(stored.substr(0, dollar));
    if (dollar == std::string_view::npos) {
      break;
    }
    stored.remove_prefix(dollar + 1);
  }
  if (fields.size() != 6 || fields[0] != "scrypt") {
    return std::nullopt;
  }
  const auto n = number(fields[1]);
  const auto r = number(fields[2]);
  const auto p = number(fields[3]);
  auto salt = decodeBase64(fields[4]);
  auto hash = decodeBase64(fields[5]);
  if (!n || !r || !p || !salt || !hash || *n < 2 || (*n & (*n - 1)) != 0 || *r == 0 ||
      *r > kMostMemory / 128 / *n || *p == 0 || *p > kMostParallel ||
      memoryFor(*n, *r, *p) > kMostMemory || salt->size() < 8 || hash->size() < 16 ||
      hash->size() > 64) {
    return std::nullopt;
  }
  return Parameters{*n, *r, *p, std::move(*salt), std::move(*hash)};
}

std::optional<std::string> scrypt(std::string_view password, const Parameters& with,
                                  std::size_t bytes) {
  std::string out(bytes, '\0');
  if (EVP_PBE_scrypt(password.data(), password.size(),
                     reinterpret_cast<const unsigned char*>(with.salt.data()), with.salt.size(),
                     with.n, with.r, with.p, memoryFor(with.n, with.r, with.p),
                     reinterpret_cast<unsigned char*>(out.data()), out.size()) != 1) {
    return std::nullopt;
  }
  return out;
}

}  // namespace

Result<std::string> hashPassword(std::string_view password) {
  Parameters made{kCost, kBlockSize, kParallel, std::string(kSaltBytes, '\0'), {}};
  if (RAND_bytes(reinterpret_cast<unsigned char*>(made.salt.data()),
                 static_cast<int>(made.salt.size())) != 1) {
    return Failure{"no random numbers for the salt"};
  }
  auto hash = scrypt(password, made, kHashBytes);
  if (!hash) {
    return Failure{"scrypt failed"};
  }
  return "scrypt$" + std::to_string(made.n) + "$" + std::to_string(made.r) + "$" +
         std::to_string(made.p) + "$" + encodeBase64(made.salt) + "$" + encodeBase64(*hash);
}

bool isPasswordHash(std::string_view stored) {
  return parse(stored).has_value();
}

bool verifyPassword(std::string_view password, std::string_view stored) {
  const auto parameters = parse(stored);
  if (!parameters) {
    return false;
  }
  const auto hash = scrypt(password, *parameters, parameters->hash.size());
  return hash && CRYPTO_memcmp(hash->data(), parameters->hash.data(), hash->size()) == 0;
}

Sha256 sha256(std::string_view bytes) {
  Sha256 digest{};
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr);
  return digest;
}

std::string encodeBase64(std::string_view bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  if (text.size() % 4 != 0 || text.size() > (1U << 20U)) {
    return std::nullopt;
  }
  std::string bytes(text.size() / 4 * 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
  // EVP_DecodeBlock counts the padding's zero bytes in.
  std::size_t padding = 0;
  for (auto end = text.rbegin(); end != text.rend() && *end == '=' && padding < 2; ++end) {
    ++padding;
  }
  if (length < 0 || static_cast<std::size_t>(length) < padding) {
    return std::nullopt;
  }
  bytes.resize(static_cast<std::size_t>(length) - padding);
  return bytes;
}

}  // namespace parlavox::platform
