// text_block: a growing list of texts in one heap block, for what must be gathered now and used later.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

class text_block {
 public:
  text_block() noexcept = default;
  ~text_block() { free(text_); }
  text_block(const text_block&) = delete;
  text_block& operator=(const text_block&) = delete;

  // Appends one formatted text. When there is no memory it does not wait: the text counts as lost, and the
  // result is false.
  bool append(const char* format, ...) noexcept __attribute__((format(printf, 2, 3))) {
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    const bool fits = length >= 0 && reserve(static_cast<size_t>(length) + 1);
    if (fits) {
      vsnprintf(text_ + used_, static_cast<size_t>(length) + 1, format, again);
      used_ += static_cast<size_t>(length) + 1;
    } else {
      ++lost_;
    }
    va_end(again);
    va_end(arguments);
    return fits;
  }

  // Texts that could not be appended.
  int lost() const noexcept { return lost_; }

  // The text behind `text`, the first one for null; null at the end.
  const char* next(const char* text) const noexcept {
    const size_t at = text == nullptr ? 0 : static_cast<size_t>(text - text_) + strlen(text) + 1;
    return at < used_ ? text_ + at : nullptr;
  }

 private:
  bool reserve(size_t more) noexcept {
    if (used_ + more <= size_) {
      return true;
    }
    const size_t size = 2 * (used_ + more);
    char* const text = static_cast<char*>(realloc(text_, size));
    if (text == nullptr) {
      return false;
    }
    text_ = text;
    size_ = size;
    return true;
  }

  char* text_ = nullptr;
  size_t used_ = 0;
  size_t size_ = 0;
  int lost_ = 0;
};
