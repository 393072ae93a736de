# Building against musl (Debian's musl-tools) on this machine. Debian has no C++ library for musl and none is needed:
# of C++ the product uses headers only, and those of the compiler's own library go with musl's C headers once they are
# told two things about musl. Any call into that library fails to link.
# The compilers by themselves, not musl-gcc: it is there for C only, and its settings for linking are used below.
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
execute_process(COMMAND g++ -dumpversion OUTPUT_VARIABLE wex_gcc_version OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND g++ -print-file-name=include OUTPUT_VARIABLE wex_gcc_include OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND g++ -dumpmachine OUTPUT_VARIABLE wex_gcc_machine OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REGEX MATCH "^[^-]+" wex_processor "${wex_gcc_machine}")

# The kernel's headers, without those of glibc that stand beside them.
set(wex_kernel_headers "${CMAKE_BINARY_DIR}/kernel-headers")
file(MAKE_DIRECTORY "${wex_kernel_headers}")
file(CREATE_LINK /usr/include/linux "${wex_kernel_headers}/linux" SYMBOLIC)
file(CREATE_LINK /usr/include/asm-generic "${wex_kernel_headers}/asm-generic" SYMBOLIC)
file(CREATE_LINK "/usr/include/${wex_gcc_machine}/asm" "${wex_kernel_headers}/asm" SYMBOLIC)

# The two things: it has none of glibc's versions, and its type of a locale has another name.
set(wex_musl_headers "-nostdinc")
foreach(directory "/usr/include/${wex_processor}-linux-musl" "${wex_gcc_include}" "${wex_kernel_headers}")
  string(APPEND wex_musl_headers " -isystem ${directory}")
endforeach()
set(wex_library "/usr/include/c++/${wex_gcc_version}")
set(CMAKE_C_FLAGS_INIT "${wex_musl_headers}")
set(CMAKE_CXX_FLAGS_INIT "-fno-exceptions '-D__GLIBC_PREREQ(major,minor)=0' -D__locale_t=locale_t -nostdinc++ \
-isystem ${wex_library} -isystem /usr/include/${wex_gcc_machine}/c++/${wex_gcc_version} ${wex_musl_headers}")
foreach(kind EXE SHARED)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-specs=/usr/lib/${wex_processor}-linux-musl/musl-gcc.specs")
endforeach()
