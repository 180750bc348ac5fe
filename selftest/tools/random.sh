# Sourced by cases: runs on a token that answers at random.

# All but those of an operator's hands.
table=$SELFTEST/../../harness/Tests.h
tests="$(sed -n '/byOperator/!s/^ *{"\([A-Za-z]*\)", .*/\1/p' "$table") all"

# try_seeds FIRST LAST: one run a seed, the tests in turn; prints those that did not end well.
try_seeds() {
  seed=$1
  # shellcheck disable=SC2086
  set -- "$2" $tests
  while [ "$seed" -le "$1" ]; do
    eval "test=\${$((seed % ($# - 1) + 2))}"
    tokens="setpin;key=rsa2048a,context;key=rsa2048b;certificate=empty;slot=2;certificate=garbage"
    KESTREL_TOKEN="random=$seed;$tokens" timeout 20 \
      "$KESTREL" -a -pw 12345678 "$test" > out 2> err < /dev/null
    status=$?
    case $status in
      0) ;;
      1)
        last=$(tr -d '\0' < out | grep -av '^$' | tail -n 1)
        echo "$last" | grep -aq '^!!! .*failed : 0x\|^####\|^\*\*\*\*\|^No Card Readers\|): !!! ' ||
          echo "seed $seed $test: $last"
        ;;
      255) grep -q 'terminal attributes' err || echo "seed $seed $test: $status" ;;
      *) echo "seed $seed $test: $status $(tail -n 3 err)" ;;
    esac
    seed=$((seed + 1))
  done
}
