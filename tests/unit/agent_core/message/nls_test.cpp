#include "agent_core/message/nls.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "agent_core/message/format_msg.h"
#include "agent_core/message/messages.h"
#include "agent_core/support/unix_common.h"
#include "support/temp_root.h"

namespace slm {
namespace {

// Sets the locale variables for one test (null unsets) and puts the old values back afterwards.
class LocaleEnvironment {
 public:
  LocaleEnvironment() {
    for (const char* name : kNames) {
      if (const char* old = getenv(name)) saved_[name] = old;
      unsetenv(name);
    }
  }
  ~LocaleEnvironment() {
    for (const char* name : kNames) set(name, saved_.count(name) ? saved_[name].c_str() : nullptr);
  }
  void set(const char* name, const char* value) {
    value == nullptr ? unsetenv(name) : setenv(name, value, 1);
  }

 private:
  static constexpr const char* kNames[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
  std::map<std::string, std::string> saved_;
};

class NlsCatalogue : public ::testing::Test {
 protected:
  void SetUp() override {
    savedRoot_ = agentRoot();
    setAgentRoot(root_.path().c_str());
    initLanguageSupport(nullptr, nullptr);
  }
  void TearDown() override {
    shutdownLanguageSupport();
    setAgentRoot(savedRoot_.c_str());
  }
  static void installCatalogue(const test::TempDir& root, const std::string& relativePath) {
    std::string bytes = test::readFile(SLM_NLS_CATALOGUE);
    ASSERT_FALSE(bytes.empty()) << SLM_NLS_CATALOGUE;
    root.writeFile(relativePath, bytes);
  }
  MessageCatalogue* openInstalled() {
    installCatalogue(root_, "var/qsam/nls/C/kvdagt.cat");
    MessageCatalogue* catalogue = openMessageCatalogue(kMessageCatalogueName);
    EXPECT_NE(catalogue, nullptr);
    return catalogue;
  }
  // Whether the catalogue opens, shown by a message text that only the catalogue can give.
  static bool catalogueFound() {
    MessageCatalogue* catalogue = openMessageCatalogue(kMessageCatalogueName);
    bool found =
        catalogue != nullptr && strcmp(getMessageText(catalogue, kConsoleMessageSet, 3, "default"),
                                       kMsgAgentRemoved.text) == 0;
    closeMessageCatalogue(catalogue);
    return found;
  }

  test::TempDir root_;
  LocaleEnvironment environment_;
  std::string savedRoot_;
};

TEST_F(NlsCatalogue, FoundUnderTheRootOrBuiltInTextsUsed) {
  MessageCatalogue* missing = openMessageCatalogue(kMessageCatalogueName);
  EXPECT_EQ(missing, nullptr);
  EXPECT_STREQ(getMessageText(missing, kMsgUsage), kMsgUsage.text);

  MessageCatalogue* catalogue = openInstalled();
  ASSERT_NE(catalogue, nullptr);
  EXPECT_STREQ(getMessageText(catalogue, kConsoleMessageSet, 99, "default"), "default");
  EXPECT_STREQ(getMessageText(catalogue, kConsoleMessageSet + 1, 3, "default"), "default");
  // Every built-in text, each under its own number, equals the catalogue's.
  std::set<std::pair<int, int>> numbers;
  for (const MessageText& message : kConsoleMessages) {
    EXPECT_TRUE(numbers.emplace(message.set, message.number).second) << message.number;
    EXPECT_STREQ(getMessageText(catalogue, message.set, message.number, "missing"), message.text)
        << message.number;
  }
  closeMessageCatalogue(catalogue);
  EXPECT_EQ(openMessageCatalogue("other"), nullptr);
  // The built-in search pattern follows the root.
  test::TempDir otherRoot;
  setAgentRoot(otherRoot.path().c_str());
  EXPECT_FALSE(catalogueFound());
}

TEST_F(NlsCatalogue, SearchesFormsOfTheMessagesLocale) {
  struct Case {
    const char* lcAll;
    const char* lcMessages;
    const char* lang;
    const char* installedDir;
    bool found;
  };
  const Case cases[] = {
      {nullptr, nullptr, nullptr, "C", true},
      {nullptr, nullptr, "POSIX", "C", true},
      {"de_DE.UTF-8@euro", nullptr, nullptr, "de_DE.UTF-8@euro", true},
      {"de_DE.UTF-8@euro", nullptr, nullptr, "de_DE", true},
      {"de_DE.UTF-8", nullptr, nullptr, "de", true},
      {"de_DE.UTF-8", nullptr, nullptr, "C", true},
      {"de_DE.UTF-8", nullptr, nullptr, "fr", false},
      {"de_DE.UTF-8", nullptr, nullptr, "DE", false},
      {nullptr, "it_IT", "de_DE", "it", true},
      {nullptr, "it_IT", "de_DE", "de", false},
      {"", "", "de_DE", "de", true},  // empty variables count as unset
  };
  for (const Case& c : cases) {
    test::TempDir root;
    setAgentRoot(root.path().c_str());
    installCatalogue(root, std::string("var/qsam/nls/") + c.installedDir + "/kvdagt.cat");
    environment_.set("LC_ALL", c.lcAll);
    environment_.set("LC_MESSAGES", c.lcMessages);
    environment_.set("LANG", c.lang);
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
  MessageCatalogue* catalogue = openInstalled();
  ASSERT_NE(catalogue, nullptr);
  char buffer[128];
  // The catalogue's message 3 takes one text, as this built-in text does: the catalogue wins.
  formatMessage(buffer, sizeof buffer, catalogue, {kConsoleMessageSet, 3, "%1$s gone"}, "X");
  EXPECT_STREQ(buffer, "3503 - X has been successfully removed.\n");
  // This built-in text takes a number: printing the catalogue's "%1$s" with it would be unsafe.
  formatMessage(buffer, sizeof buffer, catalogue, {kConsoleMessageSet, 3, "%1$d gone"}, 7);
  EXPECT_STREQ(buffer, "7 gone");
  closeMessageCatalogue(catalogue);
}

TEST(NlsFormat, PrintsPositionalArguments) {
  char buffer[128];
  EXPECT_EQ(formatMessage(buffer, sizeof buffer, nullptr, kMsgRemoveFailed, 1, "Orvane Agent"), 65);
  EXPECT_STREQ(buffer, "3504 - Error 1 occurred while attempting to remove Orvane Agent.\n");
  formatMessage(buffer, sizeof buffer, nullptr, {kConsoleMessageSet, 99, "%2$s before %1$d (%2$s)"},
                5, "x");
  EXPECT_STREQ(buffer, "x before 5 (x)");

  char* printed = nullptr;
  size_t printedSize = 0;
  FILE* stream = open_memstream(&printed, &printedSize);
  ASSERT_NE(stream, nullptr);
  printMessage(stream, nullptr, kMsgVersion, "Orvane Agent", "1.0.0", "2024-05-01");
  printMessage(stream, nullptr, kMsgUsage, "kvdagent");
  fclose(stream);
  EXPECT_EQ(std::string(printed, printedSize),
            "\n Orvane Agent version 1.0.0 - Build 2024-05-01\n\n"
            "Usage: \"kvdagent [option]\" where the option may be:\n\t-v : Version\n"
            "\t-p : Plugin\n\t-s : Inventory\n\t-sp -ps: Inventory and Plugin\n"
            "\t(none): Run as process\n");
  free(printed);
}

TEST(NlsFormat, ComparesTheArgumentsTwoFormatsTake) {
  struct Case {
    const char* format;
    const char* reference;
    bool same;
  };
  const Case cases[] = {{"%1$s and %2$d", "%2$d then %1$s", true},
                        {"%s %d", "%1$s %2$d", true},
                        {"%1$s %1$s", "%1$s", true},
                        {"100%% %1$-10.3s", "%1$s", true},
                        {"%1$*2$d", "%1$d %2$d", true},
                        {"%1$x", "%1$d", true},
                        {"plain", "", true},
                        {"%1$d", "%1$s", false},
                        {"%1$ld", "%1$d", false},
                        {"%1$s", "", false},
                        {"%1$s %2$s", "%1$s", false},
                        {"%1$s %1$d", "%1$s %1$d", false},
                        {"%1$n", "%1$n", false},
                        {"%1$s %", "%1$s", false},
                        {"%1$y", "%1$s", false}};
  for (const Case& c : cases) {
    EXPECT_EQ(sameFormatArguments(c.format, c.reference), c.same)
        << c.format << " / " << c.reference;
  }
}

class NlsCodeSet : public ::testing::Test {
 protected:
  void TearDown() override { shutdownLanguageSupport(); }
  LocaleEnvironment environment_;
};

TEST_F(NlsCodeSet, ReadsTheEnvironmentsCodeSetName) {
  struct Case {
    const char* lcAll;
    size_t size;
    const char* expected;
  };
  // The process itself stays in the "C" locale throughout: only the environment changes.
  const Case cases[] = {{"C.UTF-8", 33, "UTF-8"},
                        {"C", 33, "ANSI_X3.4-1968"},
                        {"xx_NOWHERE.FOO", 33, "ANSI_X3.4-1968"},
                        {"C.UTF-8", 4, "UTF"}};
  for (const Case& c : cases) {
    environment_.set("LC_ALL", c.lcAll);
    char name[33] = "unchanged";
    ASSERT_EQ(getOsCodeSetName(name, c.size), kCodeSetNameRead) << c.lcAll;
    EXPECT_STREQ(name, c.expected) << c.lcAll;
  }
}

TEST_F(NlsCodeSet, CreatesOnlyConvertibleCodeSetsUnderTheNameGiven) {
  CodeSet* codeSet = createCodeSet("utf-8");
  ASSERT_NE(codeSet, nullptr);
  EXPECT_STREQ(getCodeSetName(codeSet), "utf-8");
  freeCodeSet(codeSet);
  for (const char* name : {"", "NO-SUCH-CODESET", "ISO-8859-1-AND-A-NAME-TOO-LONG-333"}) {
    EXPECT_EQ(createCodeSet(name), nullptr) << name;
  }
}

TEST_F(NlsCodeSet, FreeingTheDefaultRestoresTheBuiltInOne) {
  CodeSet* builtIn = getDefaultCodeSet();
  EXPECT_STREQ(getCodeSetName(builtIn), "ISO-8859-1");
  CodeSet* utf8 = createCodeSet("UTF-8");
  ASSERT_NE(utf8, nullptr);
  setDefaultCodeSet(utf8);
  char out[16];
  // The null code set means the default one: "\xFC" is not UTF-8.
  EXPECT_EQ(convertToUtf8(nullptr, "\xFC", out, sizeof out), kTextInvalid);
  freeCodeSet(utf8);
  EXPECT_EQ(getDefaultCodeSet(), builtIn);
  EXPECT_EQ(convertToUtf8(nullptr, "\xFC", out, sizeof out), kTextConverted);
  EXPECT_STREQ(out, "\xC3\xBC");
  freeCodeSet(builtIn);  // ignored: the built-in code set is never freed
  EXPECT_STREQ(getCodeSetName(getDefaultCodeSet()), "ISO-8859-1");
}

class NlsConversion : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(latin1_, nullptr); }
  void TearDown() override { freeCodeSet(latin1_); }
  static std::vector<uint16_t> units(const uint16_t* text, size_t count) {
    return std::vector<uint16_t>(text, text + count);
  }
  CodeSet* latin1_ = createCodeSet("ISO-8859-1");
};

TEST_F(NlsConversion, RoundTripsBetweenLocalUtf8AndUcs2) {
  const char latin1[] = "Gr\xFC\xDF\x65 \xC0";
  const char utf8[] = "Gr\xC3\xBC\xC3\x9F\x65 \xC3\x80";
  const std::vector<uint16_t> ucs2 = {0x47, 0x72, 0xFC, 0xDF, 0x65, 0x20, 0xC0};

  char text[32];
  size_t bytes = 0;
  ASSERT_EQ(convertToUtf8(latin1_, latin1, text, sizeof text, &bytes), kTextConverted);
  EXPECT_STREQ(text, utf8);
  EXPECT_EQ(bytes, strlen(utf8));
  ASSERT_EQ(convertFromUtf8(latin1_, utf8, text, sizeof text, &bytes), kTextConverted);
  EXPECT_STREQ(text, latin1);
  EXPECT_EQ(bytes, strlen(latin1));

  uint16_t wide[32];
  size_t count = 0;
  ASSERT_EQ(convertUtf8ToUcs2(utf8, wide, 32, &count), kTextConverted);
  EXPECT_EQ(units(wide, count), ucs2);
  EXPECT_EQ(wide[count], 0);
  ASSERT_EQ(convertToUcs2(latin1_, latin1, wide, 32, &count), kTextConverted);
  EXPECT_EQ(units(wide, count), ucs2);
  ASSERT_EQ(convertUcs2ToUtf8(ucs2.data(), ucs2.size(), text, sizeof text, &bytes), kTextConverted);
  EXPECT_STREQ(text, utf8);
  ASSERT_EQ(convertFromUcs2(latin1_, ucs2.data(), ucs2.size(), text, sizeof text, &bytes),
            kTextConverted);
  EXPECT_STREQ(text, latin1);
}

TEST_F(NlsConversion, OtherCodeSetFamilies) {
  struct Case {
    const char* codeSet;
    const char* local;
    const char* utf8;
  };
  const Case cases[] = {
      {"IBM037", "\xC1\xC2\xF1\x40\x81", "AB1 a"},      // EBCDIC
      {"GB18030", "\xD6\xD0\x41", "\xE4\xB8\xAD\x41"},  // double-byte U+4E2D
      {"GB18030", "\x81\x30\x81\x30", "\xC2\x80"},      // four-byte U+0080
      {"SJIS", "\x93\xFA\x82\xA0", "\xE6\x97\xA5\xE3\x81\x82"},
  };
  for (const Case& c : cases) {
    CodeSet* codeSet = createCodeSet(c.codeSet);
    ASSERT_NE(codeSet, nullptr) << c.codeSet;
    char text[32];
    EXPECT_EQ(convertToUtf8(codeSet, c.local, text, sizeof text), kTextConverted) << c.codeSet;
    EXPECT_STREQ(text, c.utf8) << c.codeSet;
    EXPECT_EQ(convertFromUtf8(codeSet, c.utf8, text, sizeof text), kTextConverted) << c.codeSet;
    EXPECT_STREQ(text, c.local) << c.codeSet;
    freeCodeSet(codeSet);
  }
}

TEST_F(NlsConversion, RejectsWhatCannotBeConverted) {
  char text[16];
  uint16_t wide[16];
  size_t count = 99;
  const std::pair<const char*, int> cases[] = {
      {"bad UTF-8 lead", convertUtf8ToUcs2("a\xC3(", wide, 16, &count)},
      {"UTF-8 cut inside a character", convertUtf8ToUcs2("a\xE4\xB8", wide, 16, &count)},
      {"outside UCS-2", convertUtf8ToUcs2("a\xF0\x9F\x98\x80", wide, 16, &count)},
      {"not in Latin-1", convertFromUtf8(latin1_, "a\xE4\xB8\xAD", text, sizeof text, &count)},
  };
  for (const auto& [what, result] : cases) EXPECT_EQ(result, kTextInvalid) << what;
  // The output of a failed conversion is empty, never a part of the text.
  EXPECT_STREQ(text, "");
  EXPECT_EQ(count, 0u);
  const uint16_t lone[] = {0xD800};
  EXPECT_EQ(convertFromUcs2(nullptr, lone, 1, text, sizeof text), kTextInvalid);
}

TEST_F(NlsConversion, KeepsWholeCharactersWhenTheOutputIsFull) {
  char text[4] = "???";
  size_t bytes = 0;
  // Three bytes of room: "Gr" and not half of the next character.
  EXPECT_EQ(convertToUtf8(latin1_, "Gr\xFC\xDF", text, sizeof text, &bytes), kTextTruncated);
  EXPECT_STREQ(text, "Gr");
  EXPECT_EQ(bytes, 2u);
  uint16_t wide[3] = {1, 1, 1};
  size_t count = 0;
  EXPECT_EQ(convertUtf8ToUcs2("Gr\xC3\xBC\xC3\x9F\x65", wide, 3, &count), kTextTruncated);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(wide[0], 0x47);
  EXPECT_EQ(wide[2], 0);
  EXPECT_EQ(convertToUtf8(latin1_, "x", text, 0), kTextTruncated);
}

TEST(NlsUpperCase, MapsUcs2TextWhateverTheLocale) {
  // The test process runs in the "C" locale, where the C library alone would leave these alone.
  uint16_t text[] = {'t', 'a', 'g', '-', '1', 0xE9, 0xFF, 0xDF, 0x3B1, 0x451, 0xC9, 0xD800, 0x4E2D};
  const std::vector<uint16_t> upper = {'T',  'A',   'G',   '-',  '1',    0xC9,  0x178,
                                       0xDF, 0x391, 0x401, 0xC9, 0xD800, 0x4E2D};
  upperCaseUcs2(text, 12);  // the last unit lies beyond the count and stays as it is
  EXPECT_EQ(std::vector<uint16_t>(text, text + 13), upper);
  uint16_t last[] = {'a', 'b'};
  upperCaseUcs2(last, 1);
  EXPECT_EQ(last[1], 'b');
}

}  // namespace
}  // namespace slm
