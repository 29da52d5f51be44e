#!/usr/bin/env bash
# kit-checks.sh SOURCE BUILD ABI_CHECK: the module kit as an outsider gets it. Each public header compiles alone with
# both compilers; a changed interface is refused; the installed tree alone builds and passes the examples.
set -euo pipefail
source=$1 build=$2 abi_check=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "kit: $*" >&2
  exit 1
}

headers_compile_alone() { # include directory
  local header compiler
  for header in $(cd "$1" && find . -name '*.h'); do
    for compiler in g++ clang++; do
      command -v $compiler >/dev/null || { echo "kit: $compiler is not installed"; continue; }
      echo "#include \"${header#./}\"" >"$work/alone.cpp"
      $compiler -std=c++20 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fsyntax-only -I"$1" "$work/alone.cpp" ||
        fail "$header does not compile alone with $compiler"
    done
  done
}

# A reference that differs from what is compiled: "no" must be refused, "yes" taken.
reference_is_taken() { # yes or no, sed expression
  sed "$2" "$source/packaging/abi/3.12.5.txt" >"$work/reference"
  local taken=no
  ! "$abi_check" "$work/reference" >/dev/null 2>&1 || taken=yes
  [ $taken = "$1" ] || fail "reference changed by '$2': taken is $taken"
}

changed_interface_is_refused() {
  reference_is_taken no 's/^slot ISwitch::NotifyEvent = 16/slot ISwitch::NotifyEvent = 15/'
  reference_is_taken no 's/^offset CDebug::m_TraceActive = 24/offset CDebug::m_TraceActive = 28/'
  reference_is_taken no 's/^slot CDebug::Print = /slot CDebug::Gone = /'
  reference_is_taken no 's/^size CDebug = .*/size CDebug = 9999/'
  reference_is_taken yes 's/^size CDebug = .*/size CDebug = 1024/'
  reference_is_taken no d
}

# The static assertions see a layout that the compiler was told to change.
packed_layout_does_not_build() { # include directory
  echo '#include "daemon/module_abi.h"' >"$work/packed.cpp"
  ! g++ -std=c++20 -fpack-struct=1 -fsyntax-only -I"$1" "$work/packed.cpp" 2>"$work/errors" || fail "packed layout builds"
  grep 'static assertion failed' "$work/errors" >/dev/null || fail "packed layout fails for another reason"
}

examples_build_out_of_tree() { # prefix
  cp -r "$1/share/doc/libravagent-dev/examples" "$work/examples"
  cmake -S "$work/examples" -B "$work/examples-build" -G Ninja -DCMAKE_PREFIX_PATH="$1" >/dev/null
  cmake --build "$work/examples-build" >/dev/null || fail "the examples do not build"
  (cd "$work/examples-build" && ctest --output-on-failure >"$work/ctest") || { cat "$work/ctest"; fail "template test"; }
  "$source/packaging/test/module-symbols.sh" "$work"/examples-build/lib/libswitch.so \
    "$work"/examples-build/lib/*modules/*.so "$work"/examples-build/my_module.so
}

versions_agree() { # prefix
  local version
  version=$(sed -n 's/^project(ravd VERSION \([0-9.]*\).*/\1/p' "$source/CMakeLists.txt")
  grep -x "#define RAVD_VERSION \"$version\"" "$1/include/ravd/daemon/version.h" >/dev/null || fail "version.h"
  grep -x "Version: $version" "$1"/lib*/pkgconfig/ravd.pc "$1"/lib/*/pkgconfig/ravd.pc >/dev/null 2>&1 ||
    grep -rx "Version: $version" "$1" --include=ravd.pc >/dev/null || fail "ravd.pc"
  grep -r "set(PACKAGE_VERSION \"$version\")" "$1" --include=ravdConfigVersion.cmake >/dev/null || fail "ravdConfigVersion"
}

stage=$work/stage
DESTDIR=$stage cmake --install "$build" >/dev/null
prefix=$stage$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build/CMakeCache.txt")
headers_compile_alone "$prefix/include/ravd"
changed_interface_is_refused
packed_layout_does_not_build "$prefix/include/ravd"
versions_agree "$prefix"
examples_build_out_of_tree "$prefix"
[ "$(stat -c %a "$stage/var/log/pelrix")" = 750 ] || fail "mode of /var/log/pelrix"
[ "$(stat -c %a "$stage/etc/pelrix")" = 755 ] || fail "mode of /etc/pelrix"
echo "kit: passed"
