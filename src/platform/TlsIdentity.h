#pragma once

#include <string>
#include <vector>

#include "platform/Result.h"

namespace parlavox::platform {

// The server's TLS certificate and key, as PEM. Browsers give a page the microphone only in a
// secure context, so the crew station needs one from the server's first start.
struct TlsIdentity {
  std::string certificatePem;  // the station's, then its authority's when that is the server's own
  std::string keyPem;
  // SHA-256 of the station's certificate (DER), as browsers show it: "AB:CD:...".
  std::string fingerprint;
  // The server's own certificate authority, which signed the station's certificate: what a device
  // trusts once. Empty with an operator's own certificate.
  std::string authorityDer;
  std::string authorityFingerprint;
  // Whether this call issued the station's certificate (for the names asked for).
  bool issued = false;
  // What the server may sign its own tokens with, never served, and as lasting as the devices'
  // trust: the authority's key when it is the server's own (the station's changes with every new
  // address), else the operator's key.
  std::string secret;
};

// The names the station's certificate is issued for: DNS names and IPv4 addresses.
struct TlsNames {
  std::vector<std::string> dns;
  std::vector<std::string> ipv4;
  bool operator==(const TlsNames&) const = default;
};

// Any thread. The identity kept in `directory`, so that a crew's devices keep trusting it across
// restarts and address changes. The server's own certificate authority (parlavox-ca.pem and
// parlavox-ca-key.pem, ECDSA P-256) is made once and kept; the station's certificate and key
// (parlavox-cert.pem and parlavox-key.pem) are issued by it, and issued again, with the same
// authority, when they do not cover `names`, expire within 30 days or were not signed by it (a
// self-signed one from before the authority included). A pair the authority did not sign is an
// operator's own and is used as it is, without an authority. Keys are readable by their owner
// only. Half a pair, or an operator's pair that cannot be read or does not belong together, is a
// failure, and is left as it is.
Result<TlsIdentity> loadOrCreateTlsIdentity(const std::string& directory, const TlsNames& names);

}  // namespace parlavox::platform
