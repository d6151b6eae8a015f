// Language support, a thin layer over glibc: message catalogues found through a search pattern
// under the root (catopen/catgets), code-set handles, conversions between a local code set, UTF-8
// and UCS-2 (iconv) and upper-casing of UCS-2 text. Init, shutdown and the default code set are
// set up by the starting thread before any worker runs; everything else may run on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent_core/message/messages.h"

namespace slm {

constexpr const char* kCatalogueSearchPattern = "/var/qsam/nls/%L/%N.cat";
constexpr const char* kCodeSetDirectory = "/var/qsam/codeset";
constexpr const char* kMessageCatalogueName = "kvdagt";
constexpr size_t kCodeSetNameChars = 32;

// Records the code-set directory and the catalogue search pattern, both already resolved under
// the root as every fixed path is (":" separates alternatives; %N is the catalogue name, %L the
// messages locale, %l its language, %t its territory, %c its code set, %% a percent sign). A null
// argument selects the built-in value, which the layer resolves under the root itself. Returns 1.
int initLanguageSupport(const char* codeSetDir, const char* catalogueSearchPattern);
// Forgets the paths and makes the built-in code set the default again.
void shutdownLanguageSupport();
// The code-set directory in force. glibc's converters bring their own tables, so the layer only
// reports it.
std::string getCodeSetDirectory();

// ---- Message catalogues.

struct MessageCatalogue;

// Opens catalogue `name` through the search pattern, trying the messages locale from LC_ALL,
// LC_MESSAGES or LANG, then that locale without code set and modifier, then its language alone,
// then "C". Null when no catalogue file is found: message look-ups then give the built-in texts.
MessageCatalogue* openMessageCatalogue(const char* name);
void closeMessageCatalogue(MessageCatalogue* catalogue);
// The text of message `number` in `set`, or `defaultText` when the catalogue is null or lacks it.
// A catalogue's text stays valid until the catalogue is closed.
const char* getMessageText(const MessageCatalogue* catalogue, int set, int number,
                           const char* defaultText);
const char* getMessageText(const MessageCatalogue* catalogue, const MessageText& message);

// ---- Code sets.

struct CodeSet;

constexpr int kCodeSetNameRead = 0;
constexpr int kCodeSetNameUnknown = 1;
// Copies the operating system's code-set name for the environment's locale (at most `size` - 1
// characters, terminated), e.g. "UTF-8" or "ISO-8859-1".
[[nodiscard]] int getOsCodeSetName(char* out, size_t size);

// A handle for the named code set (at most kCodeSetNameChars characters, any case, e.g. "utf-8"),
// or null when glibc cannot convert between it and UTF-8.
CodeSet* createCodeSet(const char* name);
// Frees a handle from createCodeSet; the built-in code set and null are ignored. Freeing the
// default code set makes the built-in one the default again.
void freeCodeSet(CodeSet* codeSet);
// The default code set: the built-in one (ISO-8859-1) until setDefaultCodeSet names another.
CodeSet* getDefaultCodeSet();
void setDefaultCodeSet(CodeSet* codeSet);
const char* getCodeSetName(const CodeSet* codeSet);

// ---- Conversions. A null code set means the default code set. Every output is terminated (one
// zero byte, or one zero unit for UCS-2), so it holds at most `size` - 1 bytes or units of text;
// the optional count receives the length without the terminator. UCS-2 units are in host order.

constexpr int kTextConverted = 0;
// The input holds a sequence that is not valid in its code set (or ends inside one), or a
// character that the target code set cannot represent. The output is then empty.
constexpr int kTextInvalid = 1;
// The output was full: it holds the whole characters converted before that point.
constexpr int kTextTruncated = 2;
constexpr int kTextNoConverter = 3;

[[nodiscard]] int convertToUtf8(const CodeSet* local, const char* text, char* out, size_t size,
                                size_t* bytes = nullptr);
// convertToUtf8, except that every byte the local code set cannot read (an invalid or cut
// sequence) is taken as "?": whatever its bytes, a name comes out whole. Never kTextInvalid.
[[nodiscard]] int convertToUtf8Replacing(const CodeSet* local, const char* text, char* out,
                                         size_t size);
[[nodiscard]] int convertFromUtf8(const CodeSet* local, const char* utf8, char* out, size_t size,
                                  size_t* bytes = nullptr);
[[nodiscard]] int convertUtf8ToUcs2(const char* utf8, uint16_t* out, size_t units,
                                    size_t* count = nullptr);
[[nodiscard]] int convertUcs2ToUtf8(const uint16_t* text, size_t textUnits, char* out, size_t size,
                                    size_t* bytes = nullptr);
[[nodiscard]] int convertToUcs2(const CodeSet* local, const char* text, uint16_t* out, size_t units,
                                size_t* count = nullptr);
[[nodiscard]] int convertFromUcs2(const CodeSet* local, const uint16_t* text, size_t textUnits,
                                  char* out, size_t size, size_t* bytes = nullptr);

// Upper-cases `count` UCS-2 units in place by the Unicode case mapping, whatever the locale of
// the process. Units without an upper-case form in UCS-2 stay as they are.
void upperCaseUcs2(uint16_t* text, size_t count);

}  // namespace slm
