// Signatures made by the openssl tool, so the agent's side never checks itself.
#include "agent_core/verifySign.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/temp_root.h"

namespace slm {
namespace {

class VerifySign : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(initSlmRSAContext(), kRsaContextReady); }
  void TearDown() override { disposeSlmRSAContext(); }

  static bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

  // Writes file `name`, signs it with `key` and returns the signature.
  std::string sign(const std::string& name, const std::string& content,
                   const std::string& key = SLM_SOURCE_DIR "/tests/data/keys/dev_private.pem") {
    dir_.writeFile(name, content);
    std::string path = dir_.file(name);
    EXPECT_TRUE(
        run("openssl dgst -md5 -sign '" + key + "' -out '" + path + ".sig' '" + path + "'"));
    return test::readFile(path + ".sig");
  }

  // Verifies file `name` read from `offset` on.
  int verify(const std::string& name, const std::string& signature, long offset = 0) {
    FILE* file = fopen(dir_.file(name).c_str(), "rb");
    if (file == nullptr || fseek(file, offset, SEEK_SET) != 0) return 99;
    int result = verifySignature(file, reinterpret_cast<const uint8_t*>(signature.data()));
    fclose(file);
    return result;
  }

  test::TempDir dir_;
};

TEST_F(VerifySign, AcceptsOnlyTheSigningKeysSignatureOverTheExactContent) {
  std::string text(1000, 'a');  // ends in a partial digest block
  std::string good = sign("module.o", text);
  ASSERT_TRUE(run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:512 -out '" +
                  dir_.file("other.pem") + "' 2>/dev/null"));
  sign("changed.o", text.substr(0, 999) + "b");
  EXPECT_EQ(verify("module.o", good), kSignatureValid);
  EXPECT_EQ(verify("module.o", good, 5), kSignatureValid);  // whatever the stream's position
  EXPECT_EQ(verify("changed.o", good), kSignatureInvalid);
  EXPECT_EQ(verify("module.o", sign("foreign.o", text, dir_.file("other.pem"))), kSignatureInvalid);
}

TEST_F(VerifySign, NeedsTheContextAndCanImportItAgain) {
  std::string good = sign("agent.bin", "program text");
  EXPECT_EQ(initSlmRSAContext(), kRsaContextReady);  // a second import keeps the first
  EXPECT_EQ(disposeSlmRSAContext(), kRsaContextReady);
  EXPECT_EQ(disposeSlmRSAContext(), kRsaContextFailed);
  EXPECT_EQ(verify("agent.bin", good), kSignatureInvalid);
  ASSERT_EQ(initSlmRSAContext(), kRsaContextReady);
  EXPECT_EQ(verify("agent.bin", good), kSignatureValid);
}

}  // namespace
}  // namespace slm
