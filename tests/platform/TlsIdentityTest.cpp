// The server's certificate, read back by the openssl tool: what a browser will be shown.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "devkit/ChildProcess.h"
#include "devkit/TempDir.h"
#include "platform/TlsIdentity.h"

namespace parlavox::platform {
namespace {

// What `openssl ARGS` prints about the file at `path`, on one line.
std::string openssl(std::vector<std::string> args, const std::string& path) {
  args.insert(args.end(), {"-noout", "-in", path});
  std::string out;
  for (const std::string& line : devkit::runToEnd("openssl", args, "/").lines) {
    out += line + "\n";
  }
  return out;
}

TEST(TlsIdentity, IssuedByTheServersOwnAuthorityForTheHostsNamesAndAgainForNewOnes) {
  devkit::TempDir dir;
  const TlsNames names{{"backstage", "backstage.local"}, {"192.0.2.7", "10.0.0.12"}};
  const auto made = loadOrCreateTlsIdentity(dir.path(), names);
  ASSERT_TRUE(made) << made.error();
  EXPECT_TRUE(made->issued);
  const std::string certificate = dir / "parlavox-cert.pem";
  const std::string key = dir / "parlavox-key.pem";
  const std::string authority = dir / "parlavox-ca.pem";

  EXPECT_NE(openssl({"x509", "-ext", "subjectAltName"}, certificate)
                .find("DNS:backstage, DNS:backstage.local, IP Address:192.0.2.7, IP "
                      "Address:10.0.0.12"),
            std::string::npos);
  EXPECT_EQ(openssl({"x509", "-fingerprint", "-sha256"}, certificate),
            "sha256 Fingerprint=" + made->fingerprint + "\n");
  EXPECT_EQ(openssl({"x509", "-fingerprint", "-sha256"}, authority),
            "sha256 Fingerprint=" + made->authorityFingerprint + "\n");
  EXPECT_EQ(devkit::runToEnd("openssl", {"verify", "-CAfile", authority, certificate}, "/").status,
            0);
  EXPECT_NE(openssl({"pkey", "-text"}, key).find("ASN1 OID: prime256v1"), std::string::npos);
  for (const std::string& secret : {key, dir / "parlavox-ca-key.pem"}) {
    struct stat info {};
    ASSERT_EQ(::stat(secret.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U) << secret << " is its owner's alone";
  }

  // Kept while it covers the names; issued again, by the same authority, when it does not.
  const auto kept = loadOrCreateTlsIdentity(dir.path(), {{"backstage"}, {"10.0.0.12"}});
  ASSERT_TRUE(kept) << kept.error();
  EXPECT_FALSE(kept->issued);
  EXPECT_EQ(kept->certificatePem, made->certificatePem);
  const auto moved = loadOrCreateTlsIdentity(dir.path(), {{"backstage"}, {"198.51.100.3"}});
  ASSERT_TRUE(moved) << moved.error();
  EXPECT_TRUE(moved->issued);
  EXPECT_NE(moved->fingerprint, made->fingerprint);
  EXPECT_EQ(moved->authorityDer, made->authorityDer);

  // A self-signed pair is the server's own from before it had an authority, and replaced, or an
  // operator's own, used as it is; an operator's pair that does not belong together is refused.
  for (const std::string subject : {"/CN=localhost/O=Parlavox", "/CN=venue/O=Venue"}) {
    devkit::TempDir other;
    ASSERT_EQ(devkit::runToEnd(
                  "openssl",
                  {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                   "-subj", subject, "-keyout", "parlavox-key.pem", "-out", "parlavox-cert.pem"},
                  other.path())
                  .status,
              0);
    const std::string own = devkit::readFile(other / "parlavox-cert.pem");
    const bool venue = subject.ends_with("Venue");
    const auto loaded = loadOrCreateTlsIdentity(other.path(), names);
    ASSERT_TRUE(loaded) << loaded.error();
    EXPECT_EQ(loaded->certificatePem == own, venue) << subject;
    EXPECT_EQ(loaded->authorityDer.empty(), venue) << subject;
    EXPECT_EQ(other.entries().size(), venue ? 2U : 4U) << subject;
    if (venue) {
      devkit::writeFile(other / "parlavox-key.pem", devkit::readFile(key));
      EXPECT_TRUE(loadOrCreateTlsIdentity(other.path(), names)
                      .error()
                      .starts_with("the key is not the certificate's"));
    }
  }
  std::remove(certificate.c_str());  // half a pair is refused and left alone
  EXPECT_EQ(loadOrCreateTlsIdentity(dir.path(), names).error(), key + " without " + certificate);
}

}  // namespace
}  // namespace parlavox::platform
