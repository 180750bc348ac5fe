# Sourced by cases that hold kestrel in a call and look at it, or end it, from outside.

# began COUNT CALL: waits until the token has recorded CALL COUNT times, for ten seconds or so.
began() {
  for attempt in $(seq 500); do
    [ "$(grep -c "^$2" calls 2> /dev/null)" = "$1" ] && return
    sleep 0.02
  done
  echo "never: $2"
}

# start CALL ARGUMENT...: kestrel in the background, as process $!, and goes on once the token
# records CALL (in the file "calls"; the token is to hang there). Interrupts are not ignored, as the
# shell has it for its background.
start() {
  call=$1
  shift
  rm -f calls
  exec 3<&0
  perl -e '$SIG{INT} = "DEFAULT"; exec @ARGV' "$KESTREL" "$@" > out <&3 &
  began 1 "$call"
}

# hangs_in CALL: directives for a token that does, and says so.
hangs_in() {
  export KESTREL_TOKEN="log=calls;$1=hang"
}
