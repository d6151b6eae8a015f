// Console message printing. A translated catalogue is edited by people: a text whose conversions
// disagree with the arguments the program passes would make printf read the wrong types, so such
// a text is never used.
#include "agent_core/message/format_msg.h"

#include <cctype>
#include <cstring>
#include <map>
#include <string>

namespace slm {
namespace {

// The argument kind per position ("l:i" a long integer, ":i" an int, ":s" a text...), or
// false when the format cannot be trusted.
bool formatArguments(const char* format, std::map<int, std::string>* kinds) {
  int next = 1;
  auto readPosition = [](const char*& p, int* position) {
    const char* q = p;
    int value = 0;
    while (isdigit(static_cast<unsigned char>(*q))) value = value * 10 + (*q++ - '0');
    if (q == p || *q != '$' || value == 0) return false;
    *position = value;
    p = q + 1;
    return true;
  };
  auto record = [&](int position, const std::string& kind) {
    auto [it, added] = kinds->emplace(position, kind);
    return added || it->second == kind;
  };
  for (const char* p = format; *p != '\0'; ++p) {
    if (*p != '%') continue;
    ++p;
    if (*p == '%') continue;
    int position = 0;
    if (!readPosition(p, &position)) position = next++;
    while (*p != '\0' && strchr("-+ #0'I", *p) != nullptr) ++p;
    for (int field = 0; field < 2; ++field) {  // width, then precision
      if (field == 1) {
        if (*p != '.') break;
        ++p;
      }
      if (*p == '*') {
        ++p;
        int starPosition = 0;
        if (!readPosition(p, &starPosition)) starPosition = next++;
        if (!record(starPosition, ":i")) return false;
      }
      while (isdigit(static_cast<unsigned char>(*p))) ++p;
    }
    std::string length;
    while (*p != '\0' && strchr("hlLqjzZt", *p) != nullptr) length += *p++;
    std::string kind;
    switch (*p) {
      case 'd':
      case 'i':
      case 'o':
      case 'u':
      case 'x':
      case 'X':
      case 'c':
        kind = "i";
        break;
      case 'e':
      case 'E':
      case 'f':
      case 'F':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        kind = "f";
        break;
      case 's':
        kind = "s";
        break;
      case 'p':
        kind = "p";
        break;
      default:
        return false;  // "%n", an unknown conversion or a format cut short
    }
    if (!record(position, length + ":" + kind)) return false;
  }
  return true;
}

}  // namespace

bool sameFormatArguments(const char* format, const char* reference) {
  std::map<int, std::string> formatKinds;
  std::map<int, std::string> referenceKinds;
  return formatArguments(format, &formatKinds) && formatArguments(reference, &referenceKinds) &&
         formatKinds == referenceKinds;
}

const char* messageFormat(const MessageCatalogue* catalogue, const MessageText& message) {
  const char* text = getMessageText(catalogue, message);
  if (text == message.text || sameFormatArguments(text, message.text)) return text;
  return message.text;
}

int vprintMessage(FILE* out, const MessageCatalogue* catalogue, const MessageText& message,
                  va_list args) {
  return vfprintf(out, messageFormat(catalogue, message), args);
}

int printMessage(FILE* out, const MessageCatalogue* catalogue, MessageText message, ...) {
  va_list args;
  va_start(args, message);
  int written = vprintMessage(out, catalogue, message, args);
  va_end(args);
  return written;
}

int formatMessage(char* buffer, size_t size, const MessageCatalogue* catalogue, MessageText message,
                  ...) {
  va_list args;
  va_start(args, message);
  int written = vsnprintf(buffer, size, messageFormat(catalogue, message), args);
  va_end(args);
  return written;
}

}  // namespace slm
