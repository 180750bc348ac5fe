# Sourced by cases of kestrel-probe. What its processes leave is seen by leftovers.
export KESTREL_PIN=12345678

# probe DIRECTIVES OPTION...: runs it on a token of these directives, whose record goes to the file
# "calls", and shows the table, the findings without the command to try again, the messages and the
# exit status.
probe() {
  token=$1
  shift
  KESTREL_TOKEN="$token;log=$PWD/calls" "$PROBE" "$@" > out 2> err && status=0 || status=$?
  sed -E '/^    kestrel-probe /d; /^$/d; s/, [0-9.]+ s$//; s/ +$//' out
  cat err
  echo "status $status"
}

# findings OPTION...: verdict, check and call of whatever is neither ok nor vague nor a lack.
findings() {
  "$PROBE" --json - "$@" 2> err < /dev/null | perl -ne '
    next unless /^\{"check":"(.*?)","verdict":"(.*?)","call":"(.*?)","value":.*?,"name":"(.*?)".*"detail":"(.*?)","seconds"/;
    my ($check, $verdict, $call, $name, $detail) = ($1, $2, $3, $4, $5);
    next if $verdict =~ /^(ok|vague|absent|not applicable)$/;
    print join(" ", grep { $_ ne "" } $verdict, $check, $check =~ /$call/ ? "" : $call, $name,
      $detail eq "" ? "" : "($detail)"), "\n"'
}

# plants AREA: the checks that SoftHSM2 passes and that no planted fault makes fail.
plants() {
  case $FLAGS in
    *sanitize*) echo "what a sanitizer sees the other cases show, and sooner" >&2; exit 77 ;;
  esac
  export KESTREL_PIN=1234 PLANT_MODULE="$library"
  perl "$SELFTEST/plants.pl" "$PROBE" "$PLANTER" "$1" > out && status=0 || status=$?
  grep '^  ' out
  echo "status $status"
}

# leftovers: its processes in this folder.
leftovers() {
  for process in $(find /proc/[0-9]*/cwd -lname "$PWD" 2> /dev/null); do
    readlink "${process%cwd}exe" | grep 'kestrel-probe$'
  done
  true
}
