# Cross-building on Debian with the compiler of WEX_TRIPLE, which a preset names. What is built runs under user-mode
# emulation, except where this machine's own processor can run it.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES WEX_TRIPLE)  # the checks of the compiler read this file anew
string(REGEX MATCH "^[^-]+" wex_processor "${WEX_TRIPLE}")
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${wex_processor})
set(CMAKE_C_COMPILER ${WEX_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${WEX_TRIPLE}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${WEX_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
if(NOT CMAKE_CROSSCOMPILING_EMULATOR AND NOT WEX_TRIPLE MATCHES "^i[3-6]86-")
  set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-${wex_processor}-static -L /usr/${WEX_TRIPLE})
endif()
