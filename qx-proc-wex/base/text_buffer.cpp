// text_buffer: text in buffers of fixed size.
#include "text_buffer.h"

#include <stdarg.h>
#include <stdio.h>

#include <cstring>

bool wex_format(char* buffer, size_t size, const char* format, ...) {
  if (size == 0) {
    return false;
  }
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, size, format, arguments);
  va_end(arguments);
  if (length < 0) {
    buffer[0] = '\0';
  }
  return length >= 0 && static_cast<size_t>(length) < size;
}

void wex_copy_text(char* to, size_t size, const char* from) {
  if (size == 0) {
    return;
  }
  const size_t length = strnlen(from, size - 1);
  memmove(to, from, length);
  to[length] = '\0';
}

void rtrim(char* text) {
  size_t length = strlen(text);
  while (length > 0 && (text[length - 1] == ' ' || text[length - 1] == '\t')) {
    text[--length] = '\0';
  }
}
