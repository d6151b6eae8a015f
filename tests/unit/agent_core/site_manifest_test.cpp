#include "agent_core/site_manifest.h"

#include <gtest/gtest.h>

#include <string>

namespace slm {
namespace {

const std::string kHex = std::string(62, 'a') + "0f";
const std::string kGood =
    "kvdagent-site-manifest-v1\nversion 1.1.1.52\n"
    "not-after 2024-02-29T23:59:59Z\ncommand /tmp/qsam/install.sh\t-q\n"
    "file " +
    kHex + " install.sh\nfile " + std::string(64, '0') + " kvd agent\n";
constexpr int64_t kNotAfter = 1709251199;  // 2024-02-29T23:59:59Z

int parse(const std::string& text, SiteManifest* manifest, size_t* badLine) {
  return parseSiteManifest(text.data(), text.size(), manifest, badLine);
}

// `kGood` with its text `from` replaced by `to`.
std::string edited(const std::string& from, const std::string& to) {
  std::string text = kGood;
  text.replace(text.find(from), from.size(), to);
  return text;
}

TEST(SiteManifest, ReadsExactlyTheLayout) {
  SiteManifest manifest;
  size_t badLine = 9;
  ASSERT_EQ(parse(kGood, &manifest, &badLine), kSiteManifestParsed);
  EXPECT_EQ(badLine, 0u);
  EXPECT_EQ(manifest.version, "1.1.1.52");
  EXPECT_EQ(manifest.notAfter, kNotAfter);
  EXPECT_EQ(manifest.command, "/tmp/qsam/install.sh\t-q");
  ASSERT_EQ(manifest.files.size(), 2u);
  EXPECT_EQ(manifest.files[0].name, "install.sh");
  EXPECT_EQ(manifest.files[0].sha256[0], 0xaa);
  EXPECT_EQ(manifest.files[0].sha256[31], 0x0f);
  EXPECT_EQ(manifest.files[1].name, "kvd agent");

  const struct {
    std::string text;
    size_t badLine;
  } cases[] = {
      {edited("-v1", "-v2"), 1},
      {"\n" + kGood, 1},
      {edited("\nversion", "\r\nversion"), 1},
      {edited("version 1.1.1.52", "version 1..2"), 2},
      {edited("version 1.1.1.52", "version 1.1.1.52a"), 2},
      {edited("version 1.1.1.52", "version 1234567890"), 2},
      {edited("version 1.1.1.52", "version  1.1"), 2},
      {edited("version", "Version"), 2},
      {edited("2024-02-29", "2023-02-29"), 3},  // no 29 February that year
      {edited("23:59:59Z", "23:59:60Z"), 3},
      {edited("23:59:59Z", "23:59:59"), 3},
      {edited("2024-02-29T", "2024-02-29 "), 3},
      {edited("command /tmp/qsam/install.sh\t-q", "command "), 4},
      {edited("\ncommand", "\nfile " + kHex + " x\ncommand"), 4},  // out of order
      {edited(" install.sh", " ../install.sh"), 5},
      {edited("aaaa0f ", "aaaa0F "), 5},
      {edited("aaaa0f ", "aaaa0 "), 5},
      {edited("kvd agent", "install.sh"), 6},  // the same name twice
      {edited("kvd agent",
              "kvd\x01"
              "agent"),
       6},
      {edited("kvd agent\n", "kvd agent"), 6},  // cut short
      {edited("kvd agent\n", "kvd agent\nnote x\n"), 7},
      {kGood.substr(0, kGood.find("file ")), 5},  // no file at all
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parse(c.text, &manifest, &badLine), kSiteManifestMalformed) << c.text;
    EXPECT_EQ(badLine, c.badLine) << c.text;
  }
}

TEST(SiteManifest, ComparesVersionsNumberByNumber) {
  const struct {
    const char* a;
    const char* b;
    int order;
  } cases[] = {
      {"1.1.1.52", "1.1.1.51", 1},
      {"1.1.1.9", "1.1.1.51", -1},
      {"1.2", "1.1.1.51", 1},
      {"1.1.1", "1.1.1.0", 0},
      {"1.1.1.51", "1.1.1.51", 0},
      {"01.1", "1.1", 0},
      {"2", "10", -1},
  };
  for (const auto& c : cases) {
    const int order = compareDottedVersions(c.a, c.b);
    EXPECT_EQ((order > 0) - (order < 0), c.order) << c.a << " " << c.b;
  }
  for (const char* bad :
       {"", ".", "1.", ".1", "1.-1", "v1", "1 .2", "1.2.3.4.5.6.7.8.9.0.1.2.3.4.5.6.7"}) {
    EXPECT_FALSE(isDottedVersion(bad)) << bad;
  }
}

TEST(SiteManifest, TheOfferMustBeTheManifestsAndTheManifestCurrent) {
  SiteManifest manifest;
  size_t badLine = 0;
  ASSERT_EQ(parse(kGood, &manifest, &badLine), kSiteManifestParsed);
  const char* const both[] = {"kvd agent", "install.sh"};
  const char* const extra[] = {"install.sh", "kvd agent", "rootkit.ko"};
  const std::string command = "/tmp/qsam/install.sh\t-q";
  const struct {
    const char* version;
    int64_t now;
    std::string command;
    const char* const* names;
    size_t count;
    int expected;
    size_t detail;
  } cases[] = {
      {"1.1.1.51", kNotAfter, command, both, 2, kSiteManifestAccepted, 0},
      {"1.1.1.52", kNotAfter, command, both, 2, kSiteManifestNotNewer, 0},
      {"1.2", kNotAfter, command, both, 2, kSiteManifestNotNewer, 0},
      {"1.1.1.51", kNotAfter + 1, command, both, 2, kSiteManifestExpired, 0},
      {"1.1.1.51", kNotAfter, "/tmp/qsam/install.sh -q", both, 2, kSiteManifestOtherCommand, 0},
      {"1.1.1.51", kNotAfter, command, extra, 3, kSiteManifestNotListed, 2},
      {"1.1.1.51", kNotAfter, command, both + 1, 1, kSiteManifestNotOffered, 1},
  };
  for (const auto& c : cases) {
    size_t detail = 9;
    EXPECT_EQ(
        checkSiteManifest(manifest, c.version, c.now, c.command.c_str(), c.names, c.count, &detail),
        c.expected)
        << c.version << " " << c.now << " " << c.count;
    EXPECT_EQ(detail, c.detail);
  }
}

}  // namespace
}  // namespace slm
