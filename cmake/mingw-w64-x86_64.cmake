# Cross-compiling for 64-bit Windows with Debian's mingw-w64 (the posix
# threads model, which gives std::thread). VEL_WINDOWS_DEPS names the folder
# where scripts/build-windows puts libzip, GoogleTest and the Boost headers
# built or gathered for this target.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(triple x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${triple}-gcc-posix)
set(CMAKE_CXX_COMPILER ${triple}-g++-posix)
set(CMAKE_RC_COMPILER ${triple}-windres)

# Passed to try_compile projects as well, which see only cached variables.
set(VEL_WINDOWS_DEPS "" CACHE PATH "Dependencies built for Windows")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEL_WINDOWS_DEPS)

set(CMAKE_FIND_ROOT_PATH /usr/${triple} ${VEL_WINDOWS_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Every program runs from any folder with nothing beside it: the C and C++
# runtimes, winpthreads and zlib are linked in, so only Windows' own DLLs
# are imported.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
