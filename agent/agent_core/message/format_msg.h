// Printing of console messages with positional arguments ("%1$s", "%2$d"): the text comes from
// the catalogue when it has one that takes the same arguments as the built-in text, otherwise the
// built-in text is printed. Formatting itself is the C library's printf.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "agent_core/message/messages.h"
#include "agent_core/message/nls.h"

namespace slm {

// True when both formats consume the same arguments: the same positions with the same kinds
// (integer, floating, text, pointer) and length modifiers. A format with "%n" never matches.
bool sameFormatArguments(const char* format, const char* reference);

// The format that will be printed for `message`: the catalogue's text when it takes the same
// arguments as the built-in one, else the built-in text.
const char* messageFormat(const MessageCatalogue* catalogue, const MessageText& message);

// Both return what printf returns: the number of characters (that would have been) produced, or
// a negative value on an output error. The buffer is always terminated when `size` > 0. The
// message is taken by value because it is the last parameter before the variable arguments.
int printMessage(FILE* out, const MessageCatalogue* catalogue, MessageText message, ...);
int formatMessage(char* buffer, size_t size, const MessageCatalogue* catalogue, MessageText message,
                  ...);
int vprintMessage(FILE* out, const MessageCatalogue* catalogue, const MessageText& message,
                  va_list args);

}  // namespace slm
