# Sourced by the other scripts. Works in the checkout, whatever folder it is called from.
set -eu
unset CDPATH
cd "$(dirname "$0")/.."

say() { printf '\n== %s\n' "$*"; }

# Says now and then how far apt-get is, from what that writes.
packages_set_up() {
  count=0
  while read -r first second third _; do
    case "$first $second" in
      *' upgraded,') total=$third ;;
      'Setting up')
        count=$((count + 1))
        [ $((count % 20)) != 0 ] || echo "$count of $total packages" ;;
      'apt-get failed') exit 1 ;;
    esac
  done
}

# install PACKAGE...: installs the Debian packages that are missing, with sudo unless run by root.
install() {
  missing=
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2> /dev/null | grep -q 'ok installed' ||
      missing="$missing $package"
  done
  [ -n "$missing" ] || return 0
  say "Installing$missing"
  as_root=
  if [ "$(id -u)" != 0 ]; then
    command -v sudo > /dev/null || { echo "Not root and no sudo: please install$missing"; exit 1; }
    as_root=sudo
  fi
  $as_root apt-get update -qq
  # shellcheck disable=SC2086
  { $as_root env DEBIAN_FRONTEND=noninteractive LC_ALL=C apt-get install -y -q \
    --no-install-recommends $missing || echo apt-get failed; } | packages_set_up
}

build_packages='cmake g++ ninja-build pkg-config libssl-dev libpcsclite-dev libp11-kit-dev
  libcli11-dev nlohmann-json3-dev libpugixml-dev libfmt-dev'
