// For a test program in which memory runs short: a sanitizer's allocator is then to fail like the C
// library's, instead of ending the process. One source file of the program includes this.
#pragma once

extern "C" const char* __asan_default_options();
extern "C" const char* __tsan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}
