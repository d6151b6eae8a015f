// Signature checks against signatures made by the openssl command-line tool with the development
// key pair (and with a second key generated here), so the agent's side never checks itself.
#include "agent_core/verifySign.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/temp_root.h"

namespace slm {
namespace {

class VerifySign : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(initSlmRSAContext(), kRsaContextReady); }
  void TearDown() override { disposeSlmRSAContext(); }

  // Writes file `name` and signs it with the openssl tool; the signature's bytes go to `signature`.
  std::string signedFile(const std::string& name, const std::string& content,
                         std::vector<uint8_t>* signature, const std::string& key = kDevKey) {
    dir_.writeFile(name, content);
    std::string path = dir_.file(name);
    std::string command =
        "openssl dgst -md5 -sign '" + key + "' -out '" + path + ".sig' '" + path + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    std::string bytes = test::readFile(path + ".sig");
    signature->assign(bytes.begin(), bytes.end());
    EXPECT_EQ(signature->size(), kSignatureSize);
    return path;
  }

  // Verifies `path` read from `offset` on.
  static int verify(const std::string& path, const std::vector<uint8_t>& signature,
                    long offset = 0) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr || fseek(file, offset, SEEK_SET) != 0) return 99;
    int result = verifySignature(file, signature.data());
    fclose(file);
    return result;
  }

  inline static const std::string kDevKey =
      std::string(SLM_SOURCE_DIR) + "/tests/data/keys/dev_private.pem";
  test::TempDir dir_;
};

TEST_F(VerifySign, AcceptsOnlyTheSigningKeysSignatureOverTheExactContent) {
  // 1000 bytes end in a partial digest block; the empty file feeds no block at all.
  std::string text(1000, '\0');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i * 7);
  std::vector<uint8_t> good, emptyGood, foreign, unused;
  std::string file = signedFile("module.o", text, &good);
  std::string empty = signedFile("empty", "", &emptyGood);
  std::string otherKey = dir_.file("other.pem");
  ASSERT_EQ(std::system(("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:512 -out '" +
                         otherKey + "' 2>/dev/null")
                            .c_str()),
            0);
  signedFile("foreign.o", text, &foreign, otherKey);
  std::string changed = text;
  changed[999] ^= 0x01;
  std::string changedFile = signedFile("changed.o", changed, &unused);
  std::string longer = signedFile("longer.o", text + "x", &unused);
  std::vector<uint8_t> flipped = good;
  flipped[10] ^= 0x80;

  const struct {
    const char* what;
    std::string path;
    std::vector<uint8_t> signature;
    int expected;
  } cases[] = {
      {"good", file, good, kSignatureValid},
      {"empty file", empty, emptyGood, kSignatureValid},
      {"last byte changed", changedFile, good, kSignatureInvalid},
      {"one byte appended", longer, good, kSignatureInvalid},
      {"signed by another key", file, foreign, kSignatureInvalid},
      {"signature bit flipped", file, flipped, kSignatureInvalid},
      {"signature of another file", file, emptyGood, kSignatureInvalid},
  };
  for (const auto& c : cases) EXPECT_EQ(verify(c.path, c.signature), c.expected) << c.what;
  // The digest covers the whole file whatever the stream's position.
  EXPECT_EQ(verify(file, good, 5), kSignatureValid);
}

TEST_F(VerifySign, NeedsTheContextAndCanImportItAgain) {
  std::vector<uint8_t> good;
  std::string file = signedFile("agent.bin", "program text", &good);
  EXPECT_EQ(initSlmRSAContext(), kRsaContextReady);  // a second import keeps the first
  EXPECT_EQ(verify(file, good), kSignatureValid);
  EXPECT_EQ(disposeSlmRSAContext(), kRsaContextReady);
  EXPECT_EQ(disposeSlmRSAContext(), kRsaContextFailed);
  EXPECT_EQ(verify(file, good), kSignatureInvalid);
  ASSERT_EQ(initSlmRSAContext(), kRsaContextReady);
  EXPECT_EQ(verify(file, good), kSignatureValid);
}

}  // namespace
}  // namespace slm
