#!/bin/sh
# What users install works away from the build: `cmake --install`, and the Debian package where
# there is what makes one. Both run with the software token as their module. The source package
# holds sources alone.
# Usage: ship.sh CMAKE CPACK BUILD-FOLDER TOKEN
set -eu
umask 077  # a package serves everybody, whatever its builder keeps to himself
cmake=$1
cpack=$2
build=$3
token=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
ln -s "$token" libnorvalepk11.so

fail() { echo "$*" >&2; exit 1; }

# try PREFIX VERSION: the content of PREFIX is whole, and its program runs.
try() {
  "$1/bin/kestrel" -pw 12345678 login > report || fail "login failed: $(cat report)"
  grep -qx "kestrel version: $2 " report || fail "no banner of version $2"
  [ "$(tail -n 1 report)" = 'C_Finalize() passed' ] || fail "unfinished report: $(cat report)"
  programs=kestrel
  if [ -e "$build/kestrel-run" ]; then
    programs='kestrel kestrel-run'
    "$1/bin/kestrel-run" > table || fail "kestrel-run failed: $(cat table)"
    tail -n 1 table | grep -q '^[0-9]* passed, [0-9.]* s$' || fail "not passed: $(cat table)"
  fi
  for program in $programs; do
    gzip -dc "$1/share/man/man1/$program.1.gz" | grep -qix "\.Dt $program 1" ||
      fail "no manual page"
    bash -c '. "$1"; complete -p "$2"' - "$1/share/bash-completion/completions/$program" $program \
      > /dev/null || fail "no completion of $program"
  done
  gzip -dc "$1/share/doc/kestrel/changelog.gz" | head -n 1 | grep -q "($2)" || fail "no changelog"
  grep -q '^License: ' "$1/share/doc/kestrel/copyright" || fail "no copyright"
}

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:.*=//p' "$build/CMakeCache.txt")
"$cmake" --install "$build" --prefix "$work/installed" > /dev/null
try "$work/installed" "$version"

"$cpack" --config "$build/CPackSourceConfig.cmake" -B "$work" > packing || fail "$(cat packing)"
tar -tzf "kestrel-$version.tar.gz" | cut -d / -f 2 | sort -u > sources
grep -qx CMakeLists.txt sources || fail "no sources in the source package: $(cat sources)"
! grep -e '^build' -e '^demo$' -e '^\.git$' sources || fail "this is no source"

for tool in dpkg-deb dpkg-shlibdeps; do
  command -v $tool > /dev/null || { echo "no $tool: package not tried"; exit 0; }
done
"$cpack" --config "$build/CPackConfig.cmake" -G DEB -B "$work" > packing || fail "$(cat packing)"
set -- kestrel_*.deb
dpkg-deb -x "$1" unpacked
try "$work/unpacked/usr" "$(dpkg-deb -f "$1" Version)"
dpkg-deb -f "$1" Depends | grep -q libssl3 ||
  fail "libraries not found: $(dpkg-deb -f "$1" Depends)"
if command -v lintian > /dev/null; then
  TMPDIR=$work lintian --allow-root --fail-on error,warning "$1"  # it leaves files there
fi
