#!/usr/bin/env bash
# The ABI guard of libqosa.so.1 (libabigail's abidw and abidiff).
#
#   tools/abi.sh check LIB      compares LIB with the baseline abi/libqosa.so.1.abi: fails when an
#                               exported name was removed or an interface changed (a parameter or
#                               result type, the layout of a record it reaches, the soname); passes,
#                               printing the report, when names were only added.
#   tools/abi.sh baseline LIB   makes LIB's ABI the new baseline (after a deliberate change; commit
#                               abi/ with the change).
#
# LIB must carry debug information: `make abi-check` and `make abi-baseline` build build/libqosa.so.1
# (RelWithDebInfo) and call this. Only the exported functions and variables and the types they reach
# count; the description leaves out source locations and numbers types by a hash of their
# definition, so the baseline's diff shows exactly what changed in the ABI.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  echo "usage: $0 check|baseline path/to/libqosa.so.1" >&2
  exit 2
}
[[ $# -eq 2 ]] || usage
mode=$1
lib=$2
baseline=abi/libqosa.so.1.abi

for tool in abidw abidiff readelf; do
  command -v "$tool" >/dev/null || { echo "abi: $tool is missing; run tools/install-deps.sh" >&2; exit 2; }
done
[[ -f $lib ]] || { echo "abi: $lib does not exist; build it first" >&2; exit 2; }
if ! readelf -S --wide "$lib" | grep -q '\.debug_info'; then
  echo "abi: $lib has no debug information; use a RelWithDebInfo or Debug build (make abi-check does)" >&2
  exit 2
fi

# The ABI description of a library: exported interfaces only, types from the public headers.
# The translation units keep their paths; made relative to the tree, the description is the
# same from any checkout.
describe() {
  abidw --headers-dir include --drop-private-types --exported-interfaces-only \
        --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash \
        --out-file "$2" "$1"
  local text
  text=$(<"$2")
  printf '%s\n' "${text//"path='$PWD/"/"path='"}" >"$2"
}

case $mode in
  baseline)
    mkdir -p abi
    tmp=$(mktemp)
    trap 'rm -f "$tmp"' EXIT
    describe "$lib" "$tmp"
    chmod 644 "$tmp"
    if [[ -f $baseline ]]; then
      rc=0
      stat=$(abidiff --exported-interfaces-only --stat "$baseline" "$tmp") || rc=$?
      if ((rc == 0)); then
        echo "abi: no change against the previous baseline"
      else
        printf 'abi: changes against the previous baseline:\n%s\n' "$stat"
      fi
    fi
    mv "$tmp" "$baseline"
    trap - EXIT
    echo "abi: wrote $baseline from $lib; commit it with the change"
    ;;
  check)
    [[ -f $baseline ]] || { echo "abi: no baseline $baseline; make one with make abi-baseline" >&2; exit 2; }
    current=$(dirname "$lib")/abi/libqosa.so.1.abi
    mkdir -p "$(dirname "$current")"
    describe "$lib" "$current"
    # abidiff's exit status is a bit set: 1 error, 2 usage error, 4 the ABI changed, 8 the change is
    # incompatible (a name removed, the soname changed). Changed interfaces set only 4, as additions
    # do, so a second pass that leaves additions out tells them apart.
    rc=0
    abidiff --exported-interfaces-only "$baseline" "$current" || rc=$?
    if ((rc & 3)); then
      echo "abi-check: abidiff failed (status $rc)" >&2
      exit 2
    fi
    if ((rc & 8)); then
      echo "abi-check: FAILED: incompatible ABI change (see above)" >&2
      exit 1
    fi
    if ((rc & 4)); then
      rc=0
      abidiff --exported-interfaces-only --no-added-syms "$baseline" "$current" >/dev/null || rc=$?
      if ((rc & 3)); then
        echo "abi-check: abidiff failed (status $rc)" >&2
        exit 2
      fi
      if ((rc & 12)); then
        echo "abi-check: FAILED: an exported interface changed (see above)" >&2
        exit 1
      fi
      echo "abi-check: OK, compatible: names were added (see above); record them with make abi-baseline"
    else
      echo "abi-check: OK, the ABI matches $baseline"
    fi
    ;;
  *) usage ;;
esac
