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

TEST(TlsIdentity, MadeOnceForTheHostsNamesAndAddressesThenKept) {
  devkit::TempDir dir;
  const TlsNames names{{"backstage", "backstage.local"}, {"192.0.2.7", "10.0.0.12"}};
  const auto made = loadOrCreateTlsIdentity(dir.path(), names);
  ASSERT_TRUE(made) << made.error();
  const std::string certificate = dir / "parlavox-cert.pem";
  const std::string key = dir / "parlavox-key.pem";

  EXPECT_NE(openssl({"x509", "-ext", "subjectAltName"}, certificate)
                .find("DNS:backstage, DNS:backstage.local, IP Address:192.0.2.7, IP "
                      "Address:10.0.0.12"),
            std::string::npos);
  EXPECT_EQ(openssl({"x509", "-fingerprint", "-sha256"}, certificate),
            "sha256 Fingerprint=" + made->fingerprint + "\n");
  EXPECT_NE(openssl({"pkey", "-text"}, key).find("ASN1 OID: prime256v1"), std::string::npos);
  struct stat info {};
  ASSERT_EQ(::stat(key.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600U) << "the key is its owner's alone";

  // Kept: a later start presents the same certificate, whatever the names are by then.
  const auto kept = loadOrCreateTlsIdentity(dir.path(), {{"elsewhere"}, {}});
  ASSERT_TRUE(kept) << kept.error();
  EXPECT_EQ(kept->fingerprint, made->fingerprint);
  EXPECT_EQ(kept->keyPem, made->keyPem);

  // Half a pair, or a pair that does not belong together, is refused and left alone.
  devkit::TempDir other;
  ASSERT_TRUE(loadOrCreateTlsIdentity(other.path(), names));
  devkit::writeFile(dir / "parlavox-key.pem", devkit::readFile(other / "parlavox-key.pem"));
  EXPECT_EQ(loadOrCreateTlsIdentity(dir.path(), names)
                .error()
                .rfind("the key is not the "
                       "certificate's",
                       0),
            0U);
  std::remove(certificate.c_str());
  EXPECT_EQ(loadOrCreateTlsIdentity(dir.path(), names).error(), key + " without " + certificate);
  EXPECT_EQ(other.entries().size(), 2U);
}

}  // namespace
}  // namespace parlavox::platform
