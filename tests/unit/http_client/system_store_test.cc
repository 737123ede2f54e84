// Trees as systems have them: which of their certificates are found.
#include "services/http_client_curl/rules/system_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/certificates.h"
#include "tests/support/temp_folder.h"

QUENOR_NAMESPACE_BEGIN
namespace http_system_store {
namespace {

class SystemStoreTest : public ::testing::Test {
 protected:
  void Write(const std::string& place, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(root_.path() + place).parent_path());
    ASSERT_TRUE(test::WriteWholeFile(root_.path() + place, content));
  }
  std::string Pem(const std::string& name) {
    const test::CertificateAuthority authority(made_.path(), name);
    return test::ReadWholeFile(authority.ca_file());
  }
  // Of the bundle, below the root.
  std::string Found() const {
    const Store store = Find(root_.path());
    return store.bundle.empty() ? store.pem : store.bundle.substr(root_.path().size());
  }

  test::TempFolder root_;
  test::TempFolder made_;
};

TEST_F(SystemStoreTest, BundleIsFoundWhereASystemHasIt) {
  for (const std::string place :
       {"/etc/ssl/certs/ca-certificates.crt", "/etc/pki/tls/certs/ca-bundle.crt",
        "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem", "/etc/ssl/ca-bundle.pem",
        "/etc/ssl/cert.pem", "/usr/local/share/certs/ca-root-nss.crt"}) {
    Write(place, Pem("bundle"));
    EXPECT_EQ(Found(), place);
    ASSERT_EQ(unlink((root_.path() + place).c_str()), 0);
  }
  EXPECT_FALSE(Find(root_.path()).is_found());
}

TEST_F(SystemStoreTest, WhatIsNoBundleIsPassedOver) {
  Write("/etc/ssl/certs/ca-certificates.crt", "");
  Write("/etc/pki/tls/certs/ca-bundle.crt/folder", "");
  std::filesystem::create_directories(root_.path() + "/etc/pki/ca-trust/extracted/pem");
  ASSERT_EQ(symlink("nowhere", (root_ / "etc/ssl/ca-bundle.pem").c_str()), 0);
  Write("/etc/ssl/cert.pem", Pem("alpine"));

  EXPECT_EQ(Found(), "/etc/ssl/cert.pem");
}

TEST_F(SystemStoreTest, SingleFilesOfAndroidAreReadIntoOneText) {
  const std::string one = Pem("one");
  const std::string two = Pem("two");
  const std::string folder = "/system/etc/security/cacerts/";
  Write(folder + "0b7c536a.0", one + "Certificate:\n    Data: ...\n");
  Write(folder + "1b0f7e5c.0", "SHA1 Fingerprint=...\n" + two);
  Write(folder + "2cut.0", one.substr(0, one.size() / 2));
  Write(folder + "3large.0", std::string(1 << 20, 'x') + one);
  Write(folder + "4none.0", "no certificate");
  ASSERT_EQ(mkfifo((root_.path() + folder + "5pipe.0").c_str(), 0600), 0);

  EXPECT_EQ(Found(), one + two);
}

TEST_F(SystemStoreTest, NewerFolderOfAndroidComesFirst) {
  Write("/system/etc/security/cacerts/0b7c536a.0", Pem("old"));
  const std::string pem = Pem("new");
  Write("/apex/com.android.conscrypt/cacerts/1b0f7e5c.0", pem);

  EXPECT_EQ(Found(), pem);
}

TEST_F(SystemStoreTest, HashedFolderIsToldByItsNames) {
  Write("/certs/README", "");
  EXPECT_FALSE(IsHashedFolder(root_ / "certs"));
  EXPECT_FALSE(IsHashedFolder(root_ / "absent"));
  Write("/certs/1a2b3c4d.0", "");
  EXPECT_TRUE(IsHashedFolder(root_ / "certs"));
}

}  // namespace
}  // namespace http_system_store
QUENOR_NAMESPACE_END
