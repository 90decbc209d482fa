# The host build as 32-bit x86 code (gcc -m32, Debian's g++-multilib): the
# pointer size and structure layout the driver has on its target, so that a
# pointer kept in a ULONG or a layout that depends on pointer size fails here.
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -m32)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(FIND_LIBRARY_USE_LIB32_PATHS ON)
# The packaged GoogleTest libraries are amd64 only: build it from its sources.
set(CDCACM_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources built with the project")
# libpcap for i386, built by scripts/install-deps.sh (see there).
set(ENV{PKG_CONFIG_LIBDIR} /opt/cdcacm-i386/lib/pkgconfig)
