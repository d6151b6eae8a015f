#include "agent_core/site_signature.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "support/agent_sandbox.h"
#include "support/site_signer.h"

namespace slm {
namespace {

// SHA-256 of "abc".
constexpr char kAbcSha256[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class SiteSignature : public test::AgentSandbox {
 protected:
  // Reads the keys of the PEM text `pem`.
  static int readKeys(const std::string& pem, SiteKeys* keys) {
    FILE* stream = fmemopen(const_cast<char*>(pem.data()), pem.size(), "r");
    int result = readSiteKeys(stream, keys);
    fclose(stream);
    return result;
  }
  // The digest of root file `name`.
  void digestOf(const std::string& name, uint8_t digest[kSha256Size]) const {
    FILE* file = fopen(root_.file(name).c_str(), "rb");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(sha256OfFile(file, digest), kDigestDone);
    fclose(file);
  }

  test::SiteSigner site_{root_, "site"};
  test::SiteSigner other_{root_, "other"};
};

TEST_F(SiteSignature, AcceptsOnlyASiteKeysSignatureOverTheBytesAndTheName) {
  root_.writeFile("abc", "abc");
  root_.writeFile("abd", "abd");
  uint8_t abc[kSha256Size], abd[kSha256Size];
  digestOf("abc", abc);
  digestOf("abd", abd);
  ASSERT_EQ(sha256Hex(abc), kAbcSha256);
  // The signed message, written out by hand.
  root_.writeFile("message", std::string("kvdagent-site-sig-v1\ninstall.sh\n") + kAbcSha256 + "\n");
  ASSERT_TRUE(test::runCommand("openssl pkeyutl -sign -rawin -inkey '" + site_.privateKey() +
                               "' -in '" + root_.file("message") + "' -out '" + root_.file("sig") +
                               "'"));
  const std::string good = test::readFile(root_.file("sig"));
  ASSERT_EQ(good.size(), kSiteSignatureSize);
  std::string flipped = good;
  flipped[10] ^= 1;

  SiteKeys rotated, othersOnly;
  // Rotation: the signing key may be any of the file's.
  ASSERT_EQ(readKeys(other_.publicPem() + site_.publicPem(), &rotated), kSiteKeysLoaded);
  ASSERT_EQ(rotated.size(), 2u);
  ASSERT_EQ(readKeys(other_.publicPem(), &othersOnly), kSiteKeysLoaded);
  struct Case {
    const SiteKeys* keys;
    const char* name;
    const uint8_t* digest;
    const std::string* signature;
    int expected;
  } cases[] = {
      {&rotated, "install.sh", abc, &good, kSiteSignatureValid},
      {&rotated, "kvdagent", abc, &good, kSiteSignatureInvalid},     // renamed
      {&rotated, "install.sh ", abc, &good, kSiteSignatureInvalid},  // one byte more
      {&rotated, "install.sh", abd, &good, kSiteSignatureInvalid},   // other bytes
      {&rotated, "install.sh", abc, &flipped, kSiteSignatureInvalid},
      {&othersOnly, "install.sh", abc, &good, kSiteSignatureInvalid},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(verifySiteSignature(*c.keys, c.name, c.digest,
                                  reinterpret_cast<const uint8_t*>(c.signature->data())),
              c.expected)
        << c.name << " " << (c.keys == &rotated) << " " << (c.signature == &good);
  }
}

TEST_F(SiteSignature, TakesOnlyAKeysFileNobodyElseMayWrite) {
  ASSERT_TRUE(
      test::runCommand("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 "
                       "2>/dev/null | openssl pkey -pubout -out '" +
                       root_.file("rsa.pub") + "'"));
  const std::string two = "comment lines are skipped\n" + site_.publicPem() + other_.publicPem();
  struct Case {
    std::string content;  // empty: a directory stands at the name
    mode_t mode;
    uid_t owner;
    int expected;
    std::string traced;
  } cases[] = {
      {two, 0644, 0, kSiteKeysLoaded, ""},
      {two, 0664, 0, kSiteKeysRefusedFile, "its group or others may write it"},
      {two, 0602, 0, kSiteKeysRefusedFile, "its group or others may write it"},
      {two, 0644, 65534, kSiteKeysRefusedFile, "it is not owned by root (owner 65534"},
      {"", 0755, 0, kSiteKeysRefusedFile, "it is not a regular file"},
      {"\n", 0644, 0, kSiteKeysNone, "it holds no public key"},
      {site_.publicPem() + "-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n", 0644, 0,
       kSiteKeysUnreadable, "a block in it is no public key"},
      {site_.publicPem() + test::readFile(root_.file("rsa.pub")), 0644, 0, kSiteKeysNotEd25519,
       "a key in it is not an Ed25519 key"},
  };
  int n = 0;
  for (const Case& c : cases) {
    // Ownership can be given away only by root; elsewhere the file is the agent user's own.
    if (c.owner != 0 && geteuid() != 0) continue;
    const std::string name = "keys" + std::to_string(n++);
    if (c.content.empty()) {
      root_.makeDirs(name);
    } else {
      root_.writeFile(name, c.content);
    }
    ASSERT_EQ(chmod(root_.file(name).c_str(), c.mode), 0);
    if (c.owner != 0) {
      ASSERT_EQ(chown(root_.file(name).c_str(), c.owner, 0), 0);
    }
    restartTrace();
    SiteKeys keys;
    // The configured path is resolved under the agent's root.
    EXPECT_EQ(loadSiteKeys(("/" + name).c_str(), &keys), c.expected) << name;
    EXPECT_EQ(keys.size(), c.expected == kSiteKeysLoaded ? 2u : 0u) << name;
    if (!c.traced.empty()) {
      EXPECT_TRUE(traced("ERROR - Site keys file /" + name + " refused: " + c.traced)) << trace();
    }
  }
  restartTrace();
  SiteKeys keys;
  EXPECT_EQ(loadSiteKeys("/missing", &keys), kSiteKeysRefusedFile);
  EXPECT_EQ(loadSiteKeys("", &keys), kSiteKeysRefusedFile);
  EXPECT_TRUE(traced("ERROR - Site keys file /missing refused: it cannot be opened (errno=2)"));
  EXPECT_TRUE(traced("ERROR - Site keys file refused: site_keys_file is not set"));
}

}  // namespace
}  // namespace slm
