#!/bin/sh
# plain.sh [NAME=VALUE...] COMMAND...: runs it in the one environment that the tests are written
# for, whatever they were started in. What a case wants beside this it sets itself.
exec env -i PATH="$PATH" HOME=/nonexistent TMPDIR="${TMPDIR:-/tmp}" TERM=xterm LC_ALL=C TZ=UTC "$@"
