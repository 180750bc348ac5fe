# Sourced by cases: a SoftHSM2 token of the case's own in the current folder, and ways to reach it.
need() { command -v "$1" > /dev/null || { echo "$1 is not installed" >&2; exit 77; }; }

# use_softhsm [MECHANISMS]: makes the token "own" with PIN 1234 and links SoftHSM2 as the module.
use_softhsm() {
  need softhsm2-util
  library=$(dpkg -L libsofthsm2 2> /dev/null | grep '/libsofthsm2\.so$' | head -n 1)
  [ -n "$library" ] || { echo "libsofthsm2 is not installed" >&2; exit 77; }
  mkdir -p tokens
  printf 'directories.tokendir = %s/tokens\nlog.level = ERROR\n' "$PWD" > softhsm2.conf
  [ -z "$1" ] || echo "slots.mechanisms = $1" >> softhsm2.conf
  export SOFTHSM2_CONF="$PWD/softhsm2.conf"
  softhsm2-util --init-token --free --label own --so-pin 5678 --pin 1234 > /dev/null || exit 1
  ln -sf "$library" libnorvalepk11.so
}
