#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Result.h"

namespace parlavox::platform {

// Passwords kept as salted scrypt hashes, one self-describing line of text:
// "scrypt$N$r$p$SALT$HASH", salt and hash in base64. Only the hash is ever written; checking a
// password against it costs tens of milliseconds on purpose, so that a copy of the file is slow to
// guess from.

// Any thread. The hash of `password` with a fresh random salt.
Result<std::string> hashPassword(std::string_view password);

// Any thread. Whether `stored` is a hash hashPassword() could have made, with costs this
// verification accepts: an edited file must neither pass as open nor stall the caller.
bool isPasswordHash(std::string_view stored);

// Any thread. Whether `password` is the one `stored` was made from; false for anything that is
// not such a hash. Compares in constant time.
bool verifyPassword(std::string_view password, std::string_view stored);

using Sha256 = std::array<std::uint8_t, 32>;
// Any thread.
Sha256 sha256(std::string_view bytes);

// Any thread. `bytes` in standard base64, padded.
std::string encodeBase64(std::string_view bytes);

// Any thread. The bytes `text` (standard base64, padded) stands for; nothing when it is not
// base64.
std::optional<std::string> decodeBase64(std::string_view text);

}  // namespace parlavox::platform
