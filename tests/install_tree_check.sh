#!/usr/bin/env bash
# Installs the build into a scratch prefix and checks what a user of the
# library gets: the layout, the exported names, and a C program built with
# pkg-config against the installed tree.
set -euo pipefail
build=$1
c_program=$2
extra_cflags=${3:-}   # a sanitizer build's library needs the sanitizer runtime in the program
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null

fail() { echo "install check: $*" >&2; exit 1; }
for f in include/zelmgmt.h lib/pkgconfig/zelmgmt.pc bin/zelctl \
         share/zelmgmt/schema/zel.schema share/zelmgmt/schema/zel.ldif lib/libzelmgmt.a; do
  [ -e "$prefix/$f" ] || fail "missing $f"
done
so=$(readlink -f "$prefix/lib/libzelmgmt.so")
soname=$(objdump -p "$so" | awk '/SONAME/ {print $2}')
[ "$soname" = "libzelmgmt.so.1" ] || fail "SONAME is '$soname'"

# Only the library's own names leave the shared library: Zel_* and the
# internal routines (lower-case names with underscores, C linkage).  No C++
# symbols, no platform layer.
bad=$(nm -D --defined-only "$so" | awk '{print $3}' | grep -v -E '^(Zel_|_init$|_fini$)' \
      | grep -v -E '^[a-zA-Z]+(_[a-zA-Z0-9]+)*$|^zelOpen$' || true)
[ -z "$bad" ] || fail "unexpected exported symbols: $bad"
if nm -D --defined-only "$so" | awk '{print $3}' | grep -E '^_Z|zstricmp|util_encode|ku_mbs' ; then
  fail "platform or C++ symbols are exported"
fi
nm -D --defined-only "$so" | grep -q ' Zel_open$' || fail "Zel_open is not exported"
nm -D --defined-only "$so" | grep -q ' check_LDAP_rc$' || fail "check_LDAP_rc is not exported"

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
out="$prefix/c_program"
# shellcheck disable=SC2046,SC2086
cc -std=c99 -Wall -Werror $extra_cflags "$c_program" -o "$out" $(pkg-config --cflags --libs zelmgmt) -Wl,-rpath,"$prefix/lib"
"$out" >/dev/null || fail "the program built against the installed tree failed"
echo "install check: ok"
