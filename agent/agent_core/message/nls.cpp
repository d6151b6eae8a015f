// Language support over glibc. Catalogue files are found by expanding the search pattern for a
// few forms of the messages locale; conversions open an iconv descriptor per call, so that threads
// never share one.
#include "agent_core/message/nls.h"

#include <iconv.h>
#include <langinfo.h>
#include <locale.h>
#include <nl_types.h>
#include <wctype.h>

#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "agent_core/support/bytes.h"
#include "agent_core/support/unix_common.h"

namespace slm {

struct CodeSet {
  char name[kCodeSetNameChars + 1];
};

struct MessageCatalogue {
  nl_catd descriptor;
};

namespace {

constexpr size_t kPathChars = 4095;
constexpr const char* kUtf8 = "UTF-8";
constexpr const char* kUcs2 = std::endian::native == std::endian::little ? "UCS-2LE" : "UCS-2BE";

// Every byte is a character in ISO-8859-1, so a path in an unknown code set still converts.
CodeSet builtinCodeSet = {"ISO-8859-1"};

// Set by the starting thread before the workers exist; read by everyone afterwards. An empty
// path stands for the built-in one, resolved under the root when it is used.
struct LayerState {
  char codeSetDir[kPathChars + 1];
  char searchPattern[kPathChars + 1];
  CodeSet* defaultCodeSet;
};

LayerState layer = {"", "", &builtinCodeSet};

void setPath(char* slot, const char* path) {
  copyBounded(slot, kPathChars, path != nullptr ? path : "");
}

std::string pathOrBuiltIn(const char* slot, const char* builtIn) {
  return slot[0] != '\0' ? std::string(slot) : rootedPath(builtIn);
}

class IconvHandle {
 public:
  IconvHandle(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
  ~IconvHandle() {
    if (valid()) iconv_close(cd_);
  }
  IconvHandle(const IconvHandle&) = delete;
  IconvHandle& operator=(const IconvHandle&) = delete;
  bool valid() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
  iconv_t get() const { return cd_; }

 private:
  iconv_t cd_;
};

// The messages locale as the C library would choose it, "C" when the environment names none.
std::string messagesLocale() {
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = getenv(variable);
    if (value != nullptr && value[0] != '\0') return value;
  }
  return "C";
}

struct LocaleParts {
  std::string full, language, territory, codeSet;
};

// Splits language[_territory][.codeset][@modifier].
LocaleParts splitLocale(const std::string& locale) {
  LocaleParts parts;
  parts.full = locale;
  size_t end = locale.find_first_of("_.@");
  parts.language = locale.substr(0, end);
  size_t underscore = locale.find('_');
  if (underscore != std::string::npos) {
    size_t stop = locale.find_first_of(".@", underscore);
    parts.territory = locale.substr(underscore + 1, stop - underscore - 1);
  }
  size_t dot = locale.find('.');
  if (dot != std::string::npos) {
    size_t stop = locale.find('@', dot);
    parts.codeSet = locale.substr(dot + 1, stop - dot - 1);
  }
  return parts;
}

std::string expandPattern(const std::string& pattern, const char* name, const LocaleParts& parts) {
  std::string path;
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] != '%' || i + 1 == pattern.size()) {
      path += pattern[i];
      continue;
    }
    switch (pattern[++i]) {
      case 'N':
        path += name;
        break;
      case 'L':
        path += parts.full;
        break;
      case 'l':
        path += parts.language;
        break;
      case 't':
        path += parts.territory;
        break;
      case 'c':
        path += parts.codeSet;
        break;
      case '%':
        path += '%';
        break;
      default:
        path += '%';
        path += pattern[i];
        break;
    }
  }
  return path;
}

// The locale forms tried in order, most specific first, ending with "C" whose catalogue is the
// one installed with the agent.
std::vector<LocaleParts> localeCandidates() {
  std::vector<std::string> names;
  std::string locale = messagesLocale();
  if (locale == "POSIX") locale = "C";
  names.push_back(locale);
  LocaleParts parts = splitLocale(locale);
  if (!parts.territory.empty()) names.push_back(parts.language + "_" + parts.territory);
  names.push_back(parts.language);
  names.push_back("C");
  std::vector<LocaleParts> candidates;
  for (size_t i = 0; i < names.size(); ++i) {
    bool repeated = false;
    for (size_t j = 0; j < i; ++j) repeated = repeated || names[j] == names[i];
    if (!repeated && !names[i].empty()) candidates.push_back(splitLocale(names[i]));
  }
  return candidates;
}

nl_catd openCatalogueFile(const std::string& path) {
  // catopen takes a name holding a "/" as the file itself, without consulting NLSPATH.
  if (path.find('/') == std::string::npos) return reinterpret_cast<nl_catd>(-1);
  return catopen(path.c_str(), 0);
}

// Converts `inBytes` bytes and terminates the output with `unitBytes` zero bytes.
int convertBytes(const char* from, const char* to, const char* in, size_t inBytes, char* out,
                 size_t outBytes, size_t unitBytes, size_t* units) {
  if (units != nullptr) *units = 0;
  if (outBytes < unitBytes) return kTextTruncated;
  char* outNext = out;
  int result = kTextConverted;
  IconvHandle cd(to, from);
  if (!cd.valid()) {
    result = kTextNoConverter;
  } else {
    char* inNext = const_cast<char*>(in);
    size_t inLeft = inBytes;
    size_t outLeft = outBytes - unitBytes;
    size_t done = iconv(cd.get(), &inNext, &inLeft, &outNext, &outLeft);
    // A stateful code set may still owe the bytes that return it to its initial state.
    if (done != static_cast<size_t>(-1))
      done = iconv(cd.get(), nullptr, nullptr, &outNext, &outLeft);
    if (done == static_cast<size_t>(-1)) result = errno == E2BIG ? kTextTruncated : kTextInvalid;
  }
  if (result == kTextInvalid || result == kTextNoConverter) outNext = out;
  memset(outNext, 0, unitBytes);
  if (units != nullptr) *units = static_cast<size_t>(outNext - out) / unitBytes;
  return result;
}

const char* codeSetOrDefault(const CodeSet* codeSet) {
  return codeSet != nullptr ? codeSet->name : getDefaultCodeSet()->name;
}

// A UTF-8 character-type locale gives the Unicode case mapping whatever the process's locale is.
locale_t caseLocale() {
  static locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  return locale;
}

}  // namespace

int initLanguageSupport(const char* codeSetDir, const char* catalogueSearchPattern) {
  setPath(layer.codeSetDir, codeSetDir);
  setPath(layer.searchPattern, catalogueSearchPattern);
  layer.defaultCodeSet = &builtinCodeSet;
  return 1;
}

void shutdownLanguageSupport() {
  setPath(layer.codeSetDir, nullptr);
  setPath(layer.searchPattern, nullptr);
  layer.defaultCodeSet = &builtinCodeSet;
}

std::string getCodeSetDirectory() {
  return pathOrBuiltIn(layer.codeSetDir, kCodeSetDirectory);
}

MessageCatalogue* openMessageCatalogue(const char* name) {
  if (name == nullptr || name[0] == '\0') return nullptr;
  std::string pattern = pathOrBuiltIn(layer.searchPattern, kCatalogueSearchPattern);
  for (const LocaleParts& parts : localeCandidates()) {
    size_t start = 0;
    while (start <= pattern.size()) {
      size_t stop = pattern.find(':', start);
      if (stop == std::string::npos) stop = pattern.size();
      std::string path = expandPattern(pattern.substr(start, stop - start), name, parts);
      start = stop + 1;
      nl_catd descriptor = openCatalogueFile(path);
      if (descriptor == reinterpret_cast<nl_catd>(-1)) continue;
      MessageCatalogue* catalogue = new (std::nothrow) MessageCatalogue{descriptor};
      if (catalogue == nullptr) catclose(descriptor);
      return catalogue;
    }
  }
  return nullptr;
}

void closeMessageCatalogue(MessageCatalogue* catalogue) {
  if (catalogue == nullptr) return;
  catclose(catalogue->descriptor);
  delete catalogue;
}

const char* getMessageText(const MessageCatalogue* catalogue, int set, int number,
                           const char* defaultText) {
  if (catalogue == nullptr) return defaultText;
  return catgets(catalogue->descriptor, set, number, defaultText);
}

const char* getMessageText(const MessageCatalogue* catalogue, const MessageText& message) {
  return getMessageText(catalogue, message.set, message.number, message.text);
}

int getOsCodeSetName(char* out, size_t size) {
  if (size == 0) return kCodeSetNameUnknown;
  // The environment's locale, not the process's: the agent never calls setlocale.
  locale_t environment = newlocale(LC_CTYPE_MASK, "", static_cast<locale_t>(nullptr));
  const char* name =
      environment != nullptr ? nl_langinfo_l(CODESET, environment) : nl_langinfo(CODESET);
  int result = kCodeSetNameUnknown;
  if (name != nullptr && name[0] != '\0') {
    copyBounded(out, size - 1, name);
    result = kCodeSetNameRead;
  }
  if (environment != nullptr) freelocale(environment);
  return result;
}

CodeSet* createCodeSet(const char* name) {
  if (name == nullptr || name[0] == '\0' || strlen(name) > kCodeSetNameChars) return nullptr;
  if (!IconvHandle(name, kUtf8).valid() || !IconvHandle(kUtf8, name).valid()) return nullptr;
  CodeSet* codeSet = new (std::nothrow) CodeSet;
  if (codeSet != nullptr) copyBounded(codeSet->name, kCodeSetNameChars, name);
  return codeSet;
}

void freeCodeSet(CodeSet* codeSet) {
  if (codeSet == nullptr || codeSet == &builtinCodeSet) return;
  if (layer.defaultCodeSet == codeSet) layer.defaultCodeSet = &builtinCodeSet;
  delete codeSet;
}

CodeSet* getDefaultCodeSet() {
  return layer.defaultCodeSet;
}

void setDefaultCodeSet(CodeSet* codeSet) {
  layer.defaultCodeSet = codeSet != nullptr ? codeSet : &builtinCodeSet;
}

const char* getCodeSetName(const CodeSet* codeSet) {
  return codeSetOrDefault(codeSet);
}

int convertToUtf8(const CodeSet* local, const char* text, char* out, size_t size, size_t* bytes) {
  return convertBytes(codeSetOrDefault(local), kUtf8, text, strlen(text), out, size, 1, bytes);
}

int convertToUtf8Replacing(const CodeSet* local, const char* text, char* out, size_t size) {
  if (size == 0) return kTextTruncated;
  IconvHandle cd(kUtf8, codeSetOrDefault(local));
  if (!cd.valid()) {
    out[0] = '\0';
    return kTextNoConverter;
  }
  char* inNext = const_cast<char*>(text);
  size_t inLeft = strlen(text);
  char* outNext = out;
  size_t outLeft = size - 1;
  int result = kTextConverted;
  while (inLeft > 0) {
    if (iconv(cd.get(), &inNext, &inLeft, &outNext, &outLeft) != static_cast<size_t>(-1)) break;
    if (errno == E2BIG || outLeft == 0) {
      result = kTextTruncated;
      break;
    }
    // The byte that cannot be read stands as "?"; the conversion goes on from the next one.
    *outNext++ = '?';
    --outLeft;
    ++inNext;
    --inLeft;
  }
  if (result == kTextConverted &&
      iconv(cd.get(), nullptr, nullptr, &outNext, &outLeft) == static_cast<size_t>(-1)) {
    result = kTextTruncated;
  }
  *outNext = '\0';
  return result;
}

int convertFromUtf8(const CodeSet* local, const char* utf8, char* out, size_t size, size_t* bytes) {
  return convertBytes(kUtf8, codeSetOrDefault(local), utf8, strlen(utf8), out, size, 1, bytes);
}

int convertUtf8ToUcs2(const char* utf8, uint16_t* out, size_t units, size_t* count) {
  return convertBytes(kUtf8, kUcs2, utf8, strlen(utf8), reinterpret_cast<char*>(out),
                      units * sizeof(uint16_t), sizeof(uint16_t), count);
}

int convertUcs2ToUtf8(const uint16_t* text, size_t textUnits, char* out, size_t size,
                      size_t* bytes) {
  return convertBytes(kUcs2, kUtf8, reinterpret_cast<const char*>(text),
                      textUnits * sizeof(uint16_t), out, size, 1, bytes);
}

int convertToUcs2(const CodeSet* local, const char* text, uint16_t* out, size_t units,
                  size_t* count) {
  return convertBytes(codeSetOrDefault(local), kUcs2, text, strlen(text),
                      reinterpret_cast<char*>(out), units * sizeof(uint16_t), sizeof(uint16_t),
                      count);
}

int convertFromUcs2(const CodeSet* local, const uint16_t* text, size_t textUnits, char* out,
                    size_t size, size_t* bytes) {
  return convertBytes(kUcs2, codeSetOrDefault(local), reinterpret_cast<const char*>(text),
                      textUnits * sizeof(uint16_t), out, size, 1, bytes);
}

void upperCaseUcs2(uint16_t* text, size_t count) {
  locale_t locale = caseLocale();
  for (size_t i = 0; i < count; ++i) {
    wint_t upper = locale != nullptr ? towupper_l(text[i], locale) : towupper(text[i]);
    if (upper <= 0xFFFF) text[i] = static_cast<uint16_t>(upper);
  }
}

}  // namespace slm
