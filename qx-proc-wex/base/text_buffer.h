// text_buffer: text in buffers of fixed size. Any thread.
#pragma once

#include <cstddef>

// Formats into a fixed buffer; false (buffer terminated) when it does not fit.
bool wex_format(char* buffer, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Copies at most size - 1 bytes and terminates.
void wex_copy_text(char* to, size_t size, const char* from);

// Removes trailing blanks and tabs in place.
extern "C" void rtrim(char* text);
