# How the product is compiled: warnings are errors, no exceptions, no run-time types, hardened, small.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)

option(WEX_STATIC "Link the daemon so that it needs no library at all" OFF)
set(WEX_SANITIZE "" CACHE STRING "Sanitizers of this build, for example address,undefined")

add_library(wex_warnings INTERFACE)
target_compile_options(wex_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)

# Clang's analysis of locks; the beta part looks at the order in which they are taken. Tests are without it: they look
# at a chain when their threads have ended, and the thread sanitizer sees when those have not.
set(WEX_LOCK_WARNINGS -Wthread-safety -Wthread-safety-beta)

# What ships is optimised as a whole where bytes count. The objects can be linked without that, too: the archive is for
# other tool chains as well.
option(WEX_LTO "Optimise each shipped binary as a whole: smaller, and slower to build" OFF)

add_library(wex_product_flags INTERFACE)
target_link_libraries(wex_product_flags INTERFACE wex_warnings)
target_compile_options(wex_product_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>
  "$<$<CXX_COMPILER_ID:Clang>:${WEX_LOCK_WARNINGS}>"
  -ffunction-sections -fdata-sections -fstack-protector-strong)
if(WEX_SANITIZE)
  add_compile_options(-fsanitize=${WEX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${WEX_SANITIZE})
else()
  target_compile_options(wex_product_flags INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()

# 64 bits for files and for time: with 32, a look at a file that was written after January 2038 fails. A C library
# without 64-bit time for 32-bit programs keeps what it has.
include(CheckCXXSourceCompiles)
set(wex_wide_definitions _FILE_OFFSET_BITS=64)
set(CMAKE_REQUIRED_DEFINITIONS -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64)
check_cxx_source_compiles("#include <time.h>
  static_assert(sizeof(time_t) == 8, \"\");
  int main() { return 0; }" WEX_HAS_64_BIT_TIME)
unset(CMAKE_REQUIRED_DEFINITIONS)
if(WEX_HAS_64_BIT_TIME)
  list(APPEND wex_wide_definitions _TIME_BITS=64)
else()
  message(WARNING "this C library has no 64-bit time: wex will not run after January 2038")
endif()

# The shipped binaries need libc only.
add_library(wex_product_link INTERFACE)
if(WEX_LTO)
  target_compile_options(wex_product_flags INTERFACE -flto -ffat-lto-objects)
  target_link_options(wex_product_link INTERFACE -flto -flto-partition=one)
endif()
target_link_options(wex_product_link INTERFACE LINKER:--gc-sections LINKER:--as-needed LINKER:-z,now)
# On MIPS relro would protect some 300 bytes, and costs up to 64 KiB of padding in each file.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^mips")
  target_link_options(wex_product_link INTERFACE LINKER:-z,norelro)
else()
  target_link_options(wex_product_link INTERFACE LINKER:-z,relro)
endif()
if(NOT WEX_SANITIZE)
  target_link_options(wex_product_link INTERFACE -static-libgcc LINKER:--no-undefined)
  if(NOT WEX_STATIC)  # after it the compiler takes shared libraries again, the C library too
    target_link_options(wex_product_link INTERFACE -static-libstdc++)
  endif()
endif()

# Programs offer others no name, which the linker must be told: on MIPS every function that is called by another source
# file has a place in the dynamic table else, and its name with it. Not where a sanitizer's runtime looks for its own.
set(WEX_PROGRAM_MAP "${CMAKE_SOURCE_DIR}/cmake/offers-nothing.map")
add_library(wex_program_link INTERFACE)
target_link_libraries(wex_program_link INTERFACE wex_product_link)
if(NOT WEX_SANITIZE)
  target_link_options(wex_program_link INTERFACE "LINKER:--version-script=${WEX_PROGRAM_MAP}")
endif()

include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
