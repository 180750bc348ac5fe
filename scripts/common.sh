# Sourced by the other scripts. Works in the checkout, whatever folder it is called from.
set -eu
cd "$(dirname "$0")/.."

say() { printf '\n== %s\n' "$*"; }

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
  $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    $missing > /dev/null
}

build_packages='cmake g++ ninja-build pkg-config libssl-dev libpcsclite-dev libp11-kit-dev
  libcli11-dev nlohmann-json3-dev libpugixml-dev libfmt-dev'
