# Sourced by cases and by the demo: a PC/SC service of one's own, whose readers hold cards made of
# text files. Needs no root and nothing of a pcscd that the machine may run.

# start_pcscd DRIVER ATR...: starts pcscd with one reader per ATR ("-": a reader without a card) and
# points PC/SC clients at it. Reader N is the folder pcsc/N; its file "card" is the card.
start_pcscd() {
  PATH=$PATH:/usr/sbin
  command -v pcscd > /dev/null || { echo "pcscd is not installed" >&2; exit 77; }
  driver=$1
  shift
  rm -rf pcsc
  mkdir -p pcsc/config
  reader=0
  for atr; do
    mkdir "pcsc/$reader"
    [ "$atr" = - ] || insert_card "$reader" "$atr"
    printf 'FRIENDLYNAME "Reader %s"\nDEVICENAME %s\nLIBPATH %s\nCHANNELID %s\n' \
      "$reader" "$PWD/pcsc/$reader" "$driver" "$reader" >> pcsc/config/readers
    reader=$((reader + 1))
  done
  export PCSCLITE_CSOCK_NAME="$PWD/pcsc/socket"
  # A /run of its own, where the system allows that: pcscd notes its process ID there, and would
  # find the machine's own readers.
  own_run=
  unshare -Urm true 2> /dev/null && own_run='unshare -Urm'
  # pcscd takes its socket as a service manager hands it over: listening, on descriptor 3.
  # shellcheck disable=SC2086
  $own_run sh -c '[ -z "$1" ] || mount -t tmpfs none /run; shift; exec "$@"' sh "$own_run" \
    perl -MIO::Socket::UNIX -MPOSIX -e '
      $^F = 9;  # descriptors up to that survive exec
      my $socket = IO::Socket::UNIX->new(Local => $ENV{PCSCLITE_CSOCK_NAME}, Listen => 5) or die $!;
      POSIX::dup2(fileno($socket), 3);
      @ENV{"LISTEN_FDS", "LISTEN_PID"} = (1, $$);
      exec @ARGV or die $!;' \
    pcscd --foreground --critical --config "$PWD/pcsc/config" > pcsc/log 2>&1 < /dev/null &
  pcscd=$!
  trap stop_pcscd EXIT
  while [ ! -S pcsc/socket ] && kill -0 "$pcscd" 2> /dev/null; do sleep 0.02; done
  sleep 0.1
  kill -0 "$pcscd" 2> /dev/null || { echo "pcscd does not run here: $(cat pcsc/log)" >&2; exit 77; }
}

stop_pcscd() {
  kill "$pcscd" 2> /dev/null && wait "$pcscd" 2> /dev/null
  trap - EXIT
  true
}

# insert_card READER ATR: puts a card into a reader, at once and whole; remove_card READER.
insert_card() {
  echo "$2" > pcsc/new
  mv pcsc/new "pcsc/$1/card"
}
remove_card() { rm "pcsc/$1/card"; }
