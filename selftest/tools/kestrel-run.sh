# Sourced by cases of kestrel-run. What it and its processes leave in $TMPDIR is seen by leftovers.
export TMPDIR="$PWD/tmp"
mkdir tmp
outcome='passed|failed|not run|nothing tested|crashed|hung|could not load'

# outcomes DIRECTIVES OPTION...: runs kestrel-run with a token of these directives, whose record
# goes to the file "calls", and shows its lines without calls and times, its messages and exit
# status.
outcomes() {
  token=$1
  shift
  KESTREL_TOKEN="$token;log=$PWD/calls" "$RUN" "$@" > out 2> err && status=0 || status=$?
  sed -E "s/^($outcome) +(\w+) +([0-9]+ calls +[0-9.]+ s)? */\1 \2: /; s/ +/ /g; s/:? ?$//
    s/, [0-9.]+ s$//" out
  cat err
  echo "status $status"
}

# leftovers: the processes that run in a folder of kestrel-run's, and these folders.
leftovers() {
  find /proc/[0-9]*/cwd -lname "$TMPDIR/*" 2> /dev/null
  ls tmp
}
