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
