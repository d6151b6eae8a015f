#include "agent_core/message/nls.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "agent_core/message/format_msg.h"
#include "agent_core/message/messages.h"
#include "agent_core/support/unix_common.h"
#include "support/temp_root.h"

namespace slm {
namespace {

// Clears the locale variables for one test and puts the old values back afterwards.
struct LocaleEnvironment {
  static constexpr const char* kNames[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
  std::map<std::string, std::string> saved;
  LocaleEnvironment() {
    for (const char* name : kNames) {
      if (const char* old = getenv(name)) saved[name] = old;
      unsetenv(name);
    }
  }
  ~LocaleEnvironment() {
    for (const char* name : kNames) unsetenv(name);
    for (const auto& [name, value] : saved) setenv(name.c_str(), value.c_str(), 1);
  }
  static void set(const char* name, const char* v) { v ? setenv(name, v, 1) : unsetenv(name); }
};

class NlsCatalogue : public ::testing::Test {
 protected:
  void SetUp() override {
    setAgentRoot(root_.path().c_str());
    initLanguageSupport(nullptr, nullptr);
  }
  void TearDown() override {
    shutdownLanguageSupport();
    setAgentRoot(savedRoot_.c_str());
  }
  static void installCatalogue(const test::TempDir& root, const std::string& relativePath) {
    root.writeFile(relativePath, test::readFile(SLM_NLS_CATALOGUE));
  }
  // Whether the catalogue opens, shown by a message text that only the catalogue can give.
  static bool catalogueFound() {
    MessageCatalogue* catalogue = openMessageCatalogue(kMessageCatalogueName);
    std::string text = getMessageText(catalogue, kConsoleMessageSet, 3, "default");
    closeMessageCatalogue(catalogue);
    return text == kMsgAgentRemoved.text;
  }

  test::TempDir root_;
  LocaleEnvironment environment_;
  std::string savedRoot_ = agentRoot();
};

TEST_F(NlsCatalogue, FoundUnderTheRootOrBuiltInTextsUsed) {
  MessageCatalogue* missing = openMessageCatalogue(kMessageCatalogueName);
  EXPECT_EQ(missing, nullptr);
  EXPECT_STREQ(getMessageText(missing, kMsgUsage), kMsgUsage.text);
  installCatalogue(root_, "var/qsam/nls/C/kvdagt.cat");
  MessageCatalogue* catalogue = openMessageCatalogue(kMessageCatalogueName);
  EXPECT_STREQ(getMessageText(catalogue, kConsoleMessageSet, 99, "default"), "default");
  for (const MessageText& message : kConsoleMessages) {  // every built-in text is the catalogue's
    EXPECT_STREQ(getMessageText(catalogue, message.set, message.number, "missing"), message.text);
  }
  closeMessageCatalogue(catalogue);
  test::TempDir otherRoot;  // the built-in search pattern follows the root
  setAgentRoot(otherRoot.path().c_str());
  EXPECT_FALSE(catalogueFound());
}

TEST_F(NlsCatalogue, SearchesFormsOfTheMessagesLocale) {
  const struct {
    const char* environment[3];  // LC_ALL, LC_MESSAGES, LANG
    const char* installedDir;
    bool found;
  } cases[] = {
      {{nullptr, nullptr, nullptr}, "C", true},
      {{"de_DE.UTF-8@euro", nullptr, nullptr}, "de_DE", true},
      {{"de_DE.UTF-8", nullptr, nullptr}, "de", true},
      {{"de_DE.UTF-8", nullptr, nullptr}, "DE", false},
      {{"", "", "de_DE"}, "de", true},  // empty variables count as unset
  };
  for (const auto& c : cases) {
    test::TempDir root;
    setAgentRoot(root.path().c_str());
    installCatalogue(root, std::string("var/qsam/nls/") + c.installedDir + "/kvdagt.cat");
    for (int i = 0; i < 3; ++i) environment_.set(LocaleEnvironment::kNames[i], c.environment[i]);
    EXPECT_EQ(catalogueFound(), c.found) << c.installedDir;
  }
}

TEST_F(NlsCatalogue, ExpandsEveryPatternAlternative) {
  environment_.set("LANG", "pt_BR.ISO-8859-1");
  // A pattern handed in is already resolved under the root and used as it stands.
  std::string pattern = root_.file("none/%N") + ":" + root_.file("nls/%l/%t/%c/%N%%.cat");
  initLanguageSupport(nullptr, pattern.c_str());
  EXPECT_FALSE(catalogueFound());
  installCatalogue(root_, "nls/pt/BR/ISO-8859-1/kvdagt%.cat");
  EXPECT_TRUE(catalogueFound());
}

TEST_F(NlsCatalogue, UsesCatalogueTextOnlyWithTheSameArguments) {
  installCatalogue(root_, "var/qsam/nls/C/kvdagt.cat");
  MessageCatalogue* catalogue = openMessageCatalogue(kMessageCatalogueName);
  char buffer[128];
  formatMessage(buffer, sizeof buffer, catalogue, {kConsoleMessageSet, 3, "%1$s gone"}, "X");
  EXPECT_STREQ(buffer, "3503 - X has been successfully removed.\n");
  // This built-in text takes a number: printing the catalogue's "%1$s" with it would be unsafe.
  formatMessage(buffer, sizeof buffer, catalogue, {kConsoleMessageSet, 3, "%1$d gone"}, 7);
  EXPECT_STREQ(buffer, "7 gone");
  closeMessageCatalogue(catalogue);
}

TEST(NlsFormat, PrintsPositionalArgumentsAndComparesTheArgumentsTwoFormatsTake) {
  char buffer[128];
  EXPECT_EQ(formatMessage(buffer, sizeof buffer, nullptr, kMsgRemoveFailed, 1, "Orvane Agent"), 65);
  EXPECT_STREQ(buffer, "3504 - Error 1 occurred while attempting to remove Orvane Agent.\n");
  formatMessage(buffer, sizeof buffer, nullptr, {kConsoleMessageSet, 9, "%2$s %1$d (%2$s)"}, 5,
                "x");
  EXPECT_STREQ(buffer, "x 5 (x)");
  EXPECT_TRUE(sameFormatArguments("%1$s and %2$d", "%2$d then %1$s"));
  EXPECT_TRUE(sameFormatArguments("100%% %1$-10.3s", "%1$s"));
  EXPECT_TRUE(sameFormatArguments("%1$*2$d", "%1$d %2$d"));
  EXPECT_FALSE(sameFormatArguments("%1$ld", "%1$d"));
  EXPECT_FALSE(sameFormatArguments("%1$s %2$s", "%1$s"));
  EXPECT_FALSE(sameFormatArguments("%1$s %1$d", "%1$s %1$d"));
  EXPECT_FALSE(sameFormatArguments("%1$n", "%1$n"));
}

class NlsCodeSet : public ::testing::Test {
 protected:
  void TearDown() override { shutdownLanguageSupport(); }
  LocaleEnvironment environment_;
};

TEST_F(NlsCodeSet, ReadsTheEnvironmentsCodeSetName) {
  char name[33];  // the process itself stays in the "C" locale: only the environment changes
  environment_.set("LC_ALL", "C.UTF-8");
  ASSERT_EQ(getOsCodeSetName(name, 4), kCodeSetNameRead);
  EXPECT_STREQ(name, "UTF");
  environment_.set("LC_ALL", "xx_NOWHERE.FOO");
  ASSERT_EQ(getOsCodeSetName(name, sizeof name), kCodeSetNameRead);
  EXPECT_STREQ(name, "ANSI_X3.4-1968");
}

TEST_F(NlsCodeSet, CreatesOnlyConvertibleCodeSetsAndFreeingTheDefaultRestoresTheBuiltInOne) {
  for (const char* name : {"", "NO-SUCH-CODESET", "ISO-8859-1-AND-A-NAME-TOO-LONG-333"}) {
    EXPECT_EQ(createCodeSet(name), nullptr) << name;
  }
  CodeSet* builtIn = getDefaultCodeSet();
  CodeSet* utf8 = createCodeSet("utf-8");
  ASSERT_NE(utf8, nullptr);
  setDefaultCodeSet(utf8);
  char out[16];
  // The null code set means the default one: "\xFC" is not UTF-8.
  EXPECT_EQ(convertToUtf8(nullptr, "\xFC", out, sizeof out), kTextInvalid);
  freeCodeSet(utf8);
  EXPECT_EQ(convertToUtf8(nullptr, "\xFC", out, sizeof out), kTextConverted);
  EXPECT_STREQ(out, "\xC3\xBC");
  freeCodeSet(builtIn);  // ignored: the built-in code set is never freed
  EXPECT_STREQ(getCodeSetName(getDefaultCodeSet()), "ISO-8859-1");
}

class NlsConversion : public ::testing::Test {
 protected:
  void TearDown() override { freeCodeSet(latin1_); }
  CodeSet* latin1_ = createCodeSet("ISO-8859-1");
};

TEST_F(NlsConversion, RoundTripsBetweenLocalUtf8AndUcs2) {
  const char latin1[] = "Gr\xFC\xDF\x65 \xC0", utf8[] = "Gr\xC3\xBC\xC3\x9F\x65 \xC3\x80";
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"ISO-8859-1", latin1, utf8},
      {"IBM037", "\xC1\xC2\xF1\x40\x81", "AB1 a"},  // EBCDIC
      {"GB18030", "\x81\x30\x81\x30", "\xC2\x80"},  // four-byte U+0080
  };
  for (const auto& [name, local, utf] : cases) {
    CodeSet* codeSet = createCodeSet(name);
    char text[32];
    EXPECT_EQ(convertToUtf8(codeSet, local, text, sizeof text), kTextConverted) << name;
    EXPECT_STREQ(text, utf) << name;
    EXPECT_EQ(convertFromUtf8(codeSet, utf, text, sizeof text), kTextConverted) << name;
    EXPECT_STREQ(text, local) << name;
    freeCodeSet(codeSet);
  }
  const std::vector<uint16_t> ucs2 = {0x47, 0x72, 0xFC, 0xDF, 0x65, 0x20, 0xC0, 0};
  uint16_t wide[32];
  size_t count = 0;
  ASSERT_EQ(convertUtf8ToUcs2(utf8, wide, 32, &count), kTextConverted);
  EXPECT_EQ(std::vector<uint16_t>(wide, wide + count + 1), ucs2);  // with the terminating 0
  char text[32];
  ASSERT_EQ(convertUcs2ToUtf8(ucs2.data(), 7, text, sizeof text), kTextConverted);
  EXPECT_STREQ(text, utf8);
  ASSERT_EQ(convertFromUcs2(latin1_, ucs2.data(), 7, text, sizeof text), kTextConverted);
  EXPECT_STREQ(text, latin1);
}

TEST_F(NlsConversion, RejectsWhatCannotBeConvertedAndKeepsWholeCharacters) {
  char text[16];
  uint16_t wide[16];
  size_t count = 99;
  EXPECT_EQ(convertUtf8ToUcs2("a\xC3(", wide, 16, &count), kTextInvalid);             // bad lead
  EXPECT_EQ(convertUtf8ToUcs2("a\xF0\x9F\x98\x80", wide, 16, &count), kTextInvalid);  // not UCS-2
  EXPECT_EQ(convertFromUtf8(latin1_, "a\xE4\xB8\xAD", text, sizeof text, &count), kTextInvalid);
  EXPECT_STREQ(text, "");  // never a part of the text
  EXPECT_EQ(count, 0u);
  const uint16_t lone[] = {0xD800};
  EXPECT_EQ(convertFromUcs2(nullptr, lone, 1, text, sizeof text), kTextInvalid);
  EXPECT_EQ(convertToUtf8(latin1_, "Gr\xFC\xDF", text, 3), kTextTruncated);
  EXPECT_STREQ(text, "Gr");  // not half of the next character
  EXPECT_EQ(convertUtf8ToUcs2("Gr\xC3\xBC\xC3\x9F\x65", wide, 3, &count), kTextTruncated);
  EXPECT_EQ(std::vector<uint16_t>(wide, wide + 3), (std::vector<uint16_t>{0x47, 0x72, 0}));
}

TEST(NlsUpperCase, MapsUcs2TextWhateverTheLocale) {
  uint16_t text[] = {'t', '-', 0xE9, 0xFF, 0xDF, 0x3B1, 0x451, 0xC9, 0xD800, 0x4E2D, 'b'};
  upperCaseUcs2(text, 10);  // the last unit lies beyond the count and stays as it is
  EXPECT_EQ(std::vector<uint16_t>(text, text + 11),
            (std::vector<uint16_t>{'T', '-', 0xC9, 0x178, 0xDF, 0x391, 0x401, 0xC9, 0xD800, 0x4E2D,
                                   'b'}));
}

}  // namespace
}  // namespace slm
