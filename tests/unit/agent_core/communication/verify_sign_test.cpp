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

const std::string kDevPrivateKey = std::string(SLM_SOURCE_DIR) + "/tests/data/keys/dev_private.pem";

class VerifySign : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(initSlmRSAContext(), kRsaContextReady); }
  void TearDown() override { disposeSlmRSAContext(); }

  std::string writeFile(const std::string& name, const std::string& content) {
    dir_.writeFile(name, content);
    return dir_.file(name);
  }

  // Signs `path` with the openssl tool and returns the signature's bytes.
  std::vector<uint8_t> sign(const std::string& path, const std::string& key) {
    std::string out = path + ".sig";
    std::string command = "openssl dgst -md5 -sign '" + key + "' -out '" + out + "' '" + path + "'";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    std::string bytes = test::readFile(out);
    return {bytes.begin(), bytes.end()};
  }

  std::string otherKey() {
    std::string key = dir_.file("other.pem");
    std::string command = "openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:512 -out '" +
                          key + "' 2>/dev/null";
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return key;
  }

  int verify(const std::string& path, const std::vector<uint8_t>& signature) {
    FILE* file = fopen(path.c_str(), "rb");
    EXPECT_NE(file, nullptr) << path;
    if (file == nullptr) return 99;
    int result = verifySignature(file, signature.data());
    fclose(file);
    return result;
  }

  test::TempDir dir_;
};

TEST_F(VerifySign, AcceptsOnlyTheSigningKeysSignatureOverTheExactContent) {
  // 1000 bytes end in a partial digest block; the empty file feeds no block at all.
  std::string text(1000, '\0');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i * 7);
  std::string file = writeFile("module.o", text);
  std::string empty = writeFile("empty", "");
  std::vector<uint8_t> good = sign(file, kDevPrivateKey);
  ASSERT_EQ(good.size(), kSignatureSize);
  std::vector<uint8_t> emptyGood = sign(empty, kDevPrivateKey);

  std::string changed = text;
  changed[999] ^= 0x01;
  std::string changedFile = writeFile("changed.o", changed);
  std::string longer = writeFile("longer.o", text + "x");
  std::vector<uint8_t> foreign = sign(file, otherKey());
  ASSERT_EQ(foreign.size(), kSignatureSize);
  std::vector<uint8_t> flipped = good;
  flipped[10] ^= 0x80;

  struct Case {
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
  for (const Case& c : cases) EXPECT_EQ(verify(c.path, c.signature), c.expected) << c.what;
}

TEST_F(VerifySign, DigestCoversTheWholeFileWhateverItsPosition) {
  std::string file = writeFile("agent.bin", "program text");
  std::vector<uint8_t> good = sign(file, kDevPrivateKey);
  FILE* stream = fopen(file.c_str(), "rb");
  ASSERT_NE(stream, nullptr);
  ASSERT_EQ(fseek(stream, 5, SEEK_SET), 0);
  EXPECT_EQ(verifySignature(stream, good.data()), kSignatureValid);
  fclose(stream);
}

TEST_F(VerifySign, NeedsTheContextAndCanImportItAgain) {
  std::string file = writeFile("agent.bin", "program text");
  std::vector<uint8_t> good = sign(file, kDevPrivateKey);
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
