#pragma once

#include <string>
#include <vector>

#include "platform/Result.h"

namespace parlavox::platform {

// The server's TLS certificate and key, as PEM. Browsers give a page the microphone only in a
// secure context, so the crew station needs one from the server's first start.
struct TlsIdentity {
  std::string certificatePem;
  std::string keyPem;
  // SHA-256 of the certificate (DER), as browsers show it: "AB:CD:...".
  std::string fingerprint;
};

// The names a self-signed certificate is made for: DNS names and IPv4 addresses.
struct TlsNames {
  std::vector<std::string> dns;
  std::vector<std::string> ipv4;
};

// Any thread. The identity kept in `directory` (parlavox-cert.pem and parlavox-key.pem), so that a
// crew's browsers keep trusting it across restarts; an operator may put their own there. Where
// neither file exists, a self-signed one is made (ECDSA P-256, SHA-256, for `names`), written (the
// key readable by its owner only) and returned. A pair that exists but cannot be read or does not
// belong together is a failure, and is left as it is.
Result<TlsIdentity> loadOrCreateTlsIdentity(const std::string& directory, const TlsNames& names);

}  // namespace parlavox::platform
