#!/usr/bin/env bash
# Installs every Debian package that the build, the tests and the demo need.
# Safe to run again: apt skips what is already installed.
set -euo pipefail

if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
export DEBIAN_FRONTEND=noninteractive

# lavapipe must come from bookworm-backports (Mesa 25): bookworm's Mesa 22.3 has no
# VK_EXT_headless_surface. Derive the backports entry from the machine's own Debian
# source entry so that no package host is written down here.
add_backports() {
  if grep -rqs 'bookworm-backports' /etc/apt/sources.list /etc/apt/sources.list.d/; then return; fi
  local uri=""
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    uri=$(awk '/^URIs:/ {print $2; exit}' /etc/apt/sources.list.d/debian.sources)
  fi
  if [ -z "$uri" ] && [ -f /etc/apt/sources.list ]; then
    uri=$(awk '$1=="deb" && $3 ~ /^bookworm$/ {print $2; exit}' /etc/apt/sources.list)
  fi
  if [ -z "$uri" ]; then echo "install-deps: no Debian source entry found to derive backports from" >&2; exit 1; fi
  printf 'Types: deb\nURIs: %s\nSuites: bookworm-backports\nComponents: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n' "$uri" \
    | $SUDO tee /etc/apt/sources.list.d/zovk-backports.sources >/dev/null
}

add_backports
$SUDO apt-get update -qq

PKGS=(
  build-essential cmake ninja-build pkg-config python3 git
  libvulkan-dev vulkan-validationlayers vulkan-tools spirv-tools glslang-tools
  libjsoncpp-dev android-liblog-dev android-libbase-dev android-libutils-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  clang-14 libclang-rt-14-dev llvm-14 valgrind
  xvfb xauth x11-utils python3-xlib procps gfxreconstruct vkbasalt mangohud
  libpng-dev bc
  # Android.bp's formatter, and libbinder's headers of API 29 (bookworm's, not backports' later
  # ones) for tools/android/check_binder_headers.py.
  blueprint-tools android-platform-frameworks-native-headers/bookworm
)
$SUDO apt-get install -y -qq --no-install-recommends "${PKGS[@]}"
$SUDO apt-get install -y -qq --no-install-recommends -t bookworm-backports mesa-vulkan-drivers
