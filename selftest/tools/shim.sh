# Sourced by cases: runs of kestrel through the shim.

# through_shim: links it as the module, with the software token behind unless told otherwise.
through_shim() {
  ln -sf "$SHIM" libnorvalepk11.so
}

# report NAME TEST...: a run of kestrel; output, errors, status and calls at the token go to files
# NAME.*, without the lines that a second thread adds now and then.
report() {
  name=$1
  shift
  : > calls
  KESTREL_TOKEN="$KESTREL_TOKEN;log=calls" "$KESTREL" -pw 12345678 "$@" > "$name.out" 2> "$name.err" &&
    status=0 || status=$?
  echo $status > "$name.status"
  sed -i '/^Wait : /d' "$name.out"
  sed '/^C_WaitForSlotEvent 1 &1/d' calls > "$name.calls"
}

# same DIRECTIVES TEST...: says where a run through the shim differs from one without it.
same() {
  export KESTREL_TOKEN="$1"
  shift
  ln -sf "$TOKEN" libnorvalepk11.so
  report direct "$@"
  through_shim
  report shim "$@"
  for what in out err status calls; do
    cmp direct.$what shim.$what || echo "$KESTREL_TOKEN $*: $what"
  done
  cat direct.status >> statuses
}

# ends TEST: status, last line, and the waivers that were used, with how often.
ends() {
  rm -f used
  KESTREL_SHIM_USED=used "$KESTREL" -pw "${pin:-12345678}" "$1" > out 2> err && status=0 || status=$?
  echo "$status $(tail -n 1 out)" $(sort used | uniq -c)
}
