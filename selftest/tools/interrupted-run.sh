#!/bin/sh
# interrupted-run.sh SIGNAL...: ends a kestrel-run with each of them while a call hangs, and shows
# what it leaves behind. Its PIN is searched for in every process of the user's and in every file,
# while the call hangs and afterwards. It is one of its own, for the same case may be running
# elsewhere on the machine.
. "$SELFTEST/kestrel-run.sh"
. "$SELFTEST/variants.sh"
signals=$*
set -- $(od -A n -t u4 -N 8 /dev/urandom)
echo "$1"9"$2" > pin
export KESTREL_TOKEN="pin=$1\\x39$2;C_Sign#5=hang;log=$PWD/calls"

search() {
  grep -l -a -f pin -r out tmp err said.* /proc/[0-9]*/cmdline /proc/[0-9]*/environ 2> /dev/null
}

for signal in $signals; do
  rm -f calls
  (read -r KESTREL_PIN < pin
  export KESTREL_PIN
  exec perl -e '$SIG{INT} = "DEFAULT"; exec @ARGV' \
    "$RUN" --out out --force --junit said.xml --html said.html "$TOKEN") > shown 2> err &
  began 5 'C_Sign '
  search
  kill -"$signal" $!
  wait $!
  echo "status $?"
  search
  leftovers
  sed '1,5d; s/ *[0-9]* calls.* s / /; s/, [0-9.]* s$//' shown
  xmllint --noout said.xml
  tail -n 1 said.html
  ls out/kestrel-token | paste -sd' '
done
grep -c "'$(cat pin)'" calls
