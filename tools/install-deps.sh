#!/usr/bin/env bash
# Installs the Debian packages the build, tests and benchmarks need, only
# those that are missing. Safe to run again; does nothing when all are there.
set -euo pipefail
packages=(cmake ninja-build g++ clang libclang-rt-14-dev llvm libgtest-dev libgmock-dev libbenchmark-dev
          pkg-config binutils clang-format clang-tidy valgrind procps gcovr)
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
