#!/usr/bin/env bash
# Installs the build into a scratch prefix and checks what a user of the
# library gets: the layout, the exported names, and a C program built with
# pkg-config and one built with CMake's find_package against the installed tree.
set -euo pipefail
build=$1
c_program=$2
extra_cflags=${3:-}   # a sanitizer build's library needs the sanitizer runtime in the program
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null

fail() { echo "install check: $*" >&2; exit 1; }
for f in include/zelmgmt.h lib/pkgconfig/zelmgmt.pc bin/zelctl lib/cmake/zelmgmt/zelmgmtConfig.cmake \
         share/man/man1/zelctl.1 share/man/man3/zelmgmt.3 share/man/man5/zelmgmt-schema.5 \
         share/zelmgmt/schema/zel.schema share/zelmgmt/schema/zel.ldif share/zelmgmt/schema/99zel.ldif \
         share/zelmgmt/schema/zel-access.conf share/zelmgmt/schema/zel-access.ldif \
         share/zelmgmt/schema/zel-access-389.ldif \
         lib/libzelmgmt.a; do
  [ -e "$prefix/$f" ] || fail "missing $f"
done
# The static library's objects carry the ordinary code only, so that a
# program linking it makes no link-time pass (see the top CMakeLists.txt).
sections=$(objdump -h "$prefix/lib/libzelmgmt.a")
if grep -q '\.gnu\.lto_' <<<"$sections"; then
  fail "the installed static library holds link-time sections"
fi
completion="$prefix/share/bash-completion/completions/zelctl"
bash -c "source '$completion'; COMP_WORDS=(zelctl dom); COMP_CWORD=1; _zelctl; [ \"\${COMPREPLY[*]}\" = domain ]" \
  || fail "bash completion does not complete commands"
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
# Read once: grep -q leaving a pipe early would fail nm under pipefail.
exported=$(nm -D --defined-only "$so")
for name in Zel_open check_LDAP_rc Zel_generateKeyFile Zel_verifyAuditTrail Zel_freeAuditCheck; do
  grep -q " $name\$" <<<"$exported" || fail "$name is not exported"
done

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
out="$prefix/c_program"
# shellcheck disable=SC2046,SC2086
cc -std=c99 -Wall -Werror $extra_cflags "$c_program" -o "$out" $(pkg-config --cflags --libs zelmgmt) -Wl,-rpath,"$prefix/lib"
"$out" >/dev/null || fail "the program built against the installed tree failed"

# The README's C example, built as its first line says: it must stay a whole
# program that compiles cleanly (only built: it needs a directory to run).
readme_c="$prefix/readme_example.c"
awk '/^```c$/ {on = 1; next} on && /^```/ {exit} on' "$(dirname "$0")/../README.md" > "$readme_c"
grep -q 'Zel_getCredential' "$readme_c" || fail "the README has no C example asking for a credential"
# shellcheck disable=SC2046,SC2086
cc -std=c99 -Wall -Wextra -Werror $extra_cflags "$readme_c" -o "$prefix/readme_example" \
  $(pkg-config --cflags --libs zelmgmt) || fail "the README's C example does not build"

# The Python binding finds the library of its own tree.
if [ -z "$extra_cflags" ]; then
  PYTHONPATH="$prefix/lib/python3/dist-packages" /usr/bin/python3 -c \
    'import zelmgmt; assert zelmgmt.strerror(1010).startswith("ZEL_RC_INVALID_HANDLE")' \
    || fail "the installed Python binding does not load"
fi

# A CMake project that finds the installed package, linked once against each
# library; both programs must run.
consumer="$prefix/consumer"
mkdir -p "$consumer"
cp "$c_program" "$consumer/main.c"
cat > "$consumer/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(consumer C CXX)
find_package(zelmgmt 1 CONFIG REQUIRED)
add_executable(with_shared main.c)
target_link_libraries(with_shared PRIVATE zelmgmt::zelmgmt)
add_executable(with_static main.c)
target_link_libraries(with_static PRIVATE zelmgmt::zelmgmt_static)
set_target_properties(with_static PROPERTIES LINKER_LANGUAGE CXX)
CMAKE
cmake -S "$consumer" -B "$consumer/build" -DCMAKE_PREFIX_PATH="$prefix" \
      -DCMAKE_C_FLAGS="$extra_cflags" -DCMAKE_CXX_FLAGS="$extra_cflags" \
      -DCMAKE_EXE_LINKER_FLAGS="$extra_cflags" >/dev/null || fail "find_package(zelmgmt) failed"
cmake --build "$consumer/build" >/dev/null || fail "the CMake consumer did not build"
"$consumer/build/with_shared" >/dev/null || fail "the CMake consumer (shared) failed"
"$consumer/build/with_static" >/dev/null || fail "the CMake consumer (static) failed"
echo "install check: ok"
