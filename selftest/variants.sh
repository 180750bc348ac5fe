# Sourced by cases that run a test on one token after the other.

# run TEST DIRECTIVES: TEST on a token of those directives; the report goes to the file "out".
run() {
  KESTREL_TOKEN="$2" "$KESTREL" -pw 12345678 "$1" > out
}

# ends TEST DIRECTIVES...: runs TEST once per argument and shows status and last line of each run.
ends() {
  test=$1
  shift
  for directives in "$@"; do
    run "$test" "$directives" && status=0 || status=$?
    echo "$status $(tail -n 1 out)"
  done
}

# ends_failing TEST CALL...: the same, with a token that fails in that call.
ends_failing() {
  test=$1
  shift
  for call in "$@"; do ends "$test" "$call=5"; done
}

# start CALL ARGUMENT...: kestrel in the background, as process $!, and goes on once the token records
# CALL (in the file "calls"; the token is to hang there). Interrupts are not ignored, as the shell
# has it for its background.
start() {
  call=$1
  shift
  rm -f calls
  exec 3<&0
  perl -e '$SIG{INT} = "DEFAULT"; exec @ARGV' "$KESTREL" "$@" > out <&3 &
  for attempt in $(seq 500); do
    grep -q "^$call" calls 2> /dev/null && break
    sleep 0.02
  done
}

# hangs_in CALL: directives for a token that does, and says so.
hangs_in() {
  export KESTREL_TOKEN="log=calls;$1=hang"
}
