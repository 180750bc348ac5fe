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

# give_pair: an RSA key pair with certificate.pem, all of CKA_ID 01, for the token "own".
give_pair() {
  need openssl
  need pkcs11-tool
  openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out certificate.pem -subj /CN=own \
    -days 1 2> /dev/null || exit 1
  openssl x509 -in certificate.pem -outform DER -out certificate.der || exit 1
  softhsm2-util --import key.pem --token own --label pair --id 01 --pin 1234 > /dev/null || exit 1
  pkcs11-tool --module "$library" --login --pin 1234 --write-object certificate.der --type cert \
    --id 01 --label pair > written 2>&1 || { cat written >&2; exit 1; }
}

# only_own_token: links a module that shows the token "own" alone, in slot 0x11, through a server
# that ends with the case, however that ends.
only_own_token() {
  need p11-kit
  client=$(dpkg -L p11-kit-modules 2> /dev/null | grep '/p11-kit-client\.so$' | head -n 1)
  [ -n "$client" ] || { echo "p11-kit-modules is not installed" >&2; exit 77; }
  p11-kit server --foreground --name "$PWD/socket" --provider "$library" 'pkcs11:token=own' \
    > server 2>&1 &
  trap "kill $!; wait $!" EXIT  # not before its socket is gone: the folder is removed next
  trap 'exit 1' HUP INT TERM
  for attempt in $(seq 100); do [ -S socket ] && break || sleep 0.05; done
  export P11_KIT_SERVER_ADDRESS="unix:path=$PWD/socket"
  ln -sf "$client" libnorvalepk11.so
}

# use_nss: NSS's own token, which needs no files: sets `library` and `arguments`.
use_nss() {
  library=$(dpkg -L libnss3 2> /dev/null | grep '/libsoftokn3\.so$' | head -n 1)
  [ -n "$library" ] || { echo "libnss3 is not installed" >&2; exit 77; }
  arguments="configdir='' certPrefix='' keyPrefix='' secmod=''"
  arguments="$arguments flags=readOnly,noCertDB,noModDB,forceOpen,optimizeSpace"
}

# only_version PACKAGE VERSION: what a module does changes from one version to the next.
only_version() {
  case $(dpkg-query -W -f '${Version}' "$1" 2> /dev/null) in
    "$2"*) ;;
    *) echo "$1 is not version $2" >&2; exit 77 ;;
  esac
}
