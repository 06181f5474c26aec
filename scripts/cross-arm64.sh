#!/usr/bin/env bash
# The 64-bit Arm check: installs Debian's aarch64 cross compiler, qemu's user-mode emulator
# and the arm64 builds of the dependencies (multiarch, beside the host's), cross-builds the
# library and the unit tests, runs the unit tests under qemu, and checks that the arm64
# library exports exactly what the x86_64 one does.
#   scripts/cross-arm64.sh [BUILD_DIR] [X86_64_LIBZOVK]
# BUILD_DIR defaults to build-arm64. Without X86_64_LIBZOVK the x86_64 library is built for
# the comparison in BUILD_DIR/x86_64.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${1:-$root/build-arm64}")
host_lib=${2:-}

if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
export DEBIAN_FRONTEND=noninteractive

# The arm64 packages must be the same versions as the host's, which install-deps.sh pins to
# bookworm (its apt-get update also fetches the arm64 lists once the architecture is known).
dpkg --print-foreign-architectures | grep -qx arm64 || $SUDO dpkg --add-architecture arm64
"$root/scripts/install-deps.sh"
$SUDO apt-get install -y -qq --no-install-recommends g++-aarch64-linux-gnu qemu-user-static \
  libvulkan-dev:arm64 libjsoncpp-dev:arm64 android-liblog-dev:arm64 android-libbase-dev:arm64 \
  android-libutils-dev:arm64 libgtest-dev:arm64

# libbacktrace's 7z.so cannot be installed for arm64 beside the host's (the toolchain file
# says why): unpack the arm64 package of the host's version into the build tree.
extra=$build/arm64-extra
if [ ! -f "$extra/usr/lib/p7zip/7z.so" ]; then
  mkdir -p "$extra"
  version=$(dpkg-query -W -f '${Version}' p7zip-full)
  (cd "$extra" && apt-get download -qq -o APT::Sandbox::User=root "p7zip-full:arm64=$version" && dpkg-deb -x p7zip-full_*_arm64.deb .)
fi

cmake -S "$root" -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
  -DZOVK_UNIT_TESTS_ONLY=ON -DZOVK_CROSS_LIBRARY_PATH="$extra/usr/lib/p7zip" >/dev/null
ninja -C "$build" -j"$(nproc)"
readelf -h "$build/libzovk.so" | grep -q 'Machine: *AArch64' || { echo "cross-arm64: $build/libzovk.so is not arm64" >&2; exit 1; }

# Every unit test program runs under qemu-aarch64 (the toolchain's CMAKE_CROSSCOMPILING_EMULATOR).
ctest --test-dir "$build" -L unit -j"$(nproc)" --output-on-failure

if [ -z "$host_lib" ]; then
  cmake -S "$root" -B "$build/x86_64" -G Ninja -DZOVK_BUILD_TESTS=OFF >/dev/null
  ninja -C "$build/x86_64" -j"$(nproc)" zovk
  host_lib=$build/x86_64/libzovk.so
fi
exports() { nm -D --defined-only "$1" | awk '{ print $3, $2 }' | sort; }
if ! diff <(exports "$host_lib") <(exports "$build/libzovk.so") >&2; then
  echo "cross-arm64: the arm64 library's exports differ from $host_lib's (< x86_64, > arm64)" >&2
  exit 1
fi
echo "cross-arm64: $build/libzovk.so exports the same $(exports "$host_lib" | wc -l) symbols as $host_lib"
