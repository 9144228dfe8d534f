#!/usr/bin/env bash
# Installs the Debian packages the build, tests, benchmarks and packages need,
# only those that are missing; with the argument "arm64" also the arm64 cross
# tool chain, qemu-user and the GoogleTest sources. Safe to run again; does
# nothing when all are there.
set -euo pipefail
packages=(cmake ninja-build g++ clang libclang-rt-14-dev llvm libgtest-dev libgmock-dev
          pkg-config binutils clang-format clang-tidy valgrind procps doxygen abigail-tools dpkg-dev
          gcovr python3)
for group in "$@"; do
  case "$group" in
    arm64) packages+=(g++-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user googletest) ;;
    *) echo "unknown package set: $group" >&2; exit 2 ;;
  esac
done
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  SUDO=""
  [[ $(id -u) -eq 0 ]] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${missing[@]}" >/dev/null
fi
