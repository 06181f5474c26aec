# Cross-build for 64-bit Arm Linux with Debian's cross compiler and the arm64 builds of the
# dependencies installed side by side (multiarch: libraries under /usr/lib/aarch64-linux-gnu,
# headers shared under /usr/include). Test programs run under qemu's user-mode emulation.
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake ...   (scripts/cross-arm64.sh)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# pkg-config answers with the arm64 .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# Libraries that the arm64 dependencies load but that multiarch cannot install beside the
# host's: libbacktrace (under libutils) needs p7zip's 7z.so, whose package is Multi-Arch:
# foreign, so only one architecture's copy fits /usr/lib/p7zip. scripts/cross-arm64.sh
# unpacks the arm64 one into the build tree and names its folder here.
set(ZOVK_CROSS_LIBRARY_PATH "" CACHE PATH "Folder of arm64 libraries outside the multiarch paths")
if(ZOVK_CROSS_LIBRARY_PATH)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${ZOVK_CROSS_LIBRARY_PATH}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${ZOVK_CROSS_LIBRARY_PATH}")
  set(ZOVK_QEMU_ENVIRONMENT -E LD_LIBRARY_PATH=${ZOVK_CROSS_LIBRARY_PATH})
endif()

# ctest (and gtest's test discovery) run every test program through this. The arm64 C
# library installed by multiarch provides the dynamic loader at its usual path.
find_program(ZOVK_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${ZOVK_QEMU_AARCH64} ${ZOVK_QEMU_ENVIRONMENT})
