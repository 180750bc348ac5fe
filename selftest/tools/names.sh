#!/bin/sh
# The manual pages and the completions name what the tables of the sources have: tests, waivers,
# options, and the directives of the software token.
# Usage: names.sh SOURCE-FOLDER BUILD-FOLDER
set -eu
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

same() { # same WHAT EXPECTED ACTUAL: sorted lists in files
  diff -u "$2" "$3" || { echo "$1: other names than in the table (-)" >&2; exit 1; }
}

sed -n 's/^ *{"\([A-Za-z]*\)", .*/\1/p' "$source/harness/Tests.h" > table
{ echo all; cat table; } | sort > tests
[ "$(wc -l < tests)" -gt 1 ] || { echo "no test found in the table" >&2; exit 1; }
printf '%s\n' -pw -d -a | sort - tests > arguments

sed -n '/^\.Sh DESC/,/^\.Ss What/s/^\.It \(Fl \|Cm \)\([A-Za-z]*\).*/\1\2/p' \
  "$source/doc/kestrel.1" | sed 's/^Fl /-/; s/^Cm //' | sort > manual
same "kestrel(1)" arguments manual
sed -n '/^\.Sh TESTS/,/^\.Ss/s/^\.It Cm //p' "$source/doc/kestrel-run.1" | sed 's/ , /\n/g' |
  sort > manual
sort table > named
same "kestrel-run(1)" named manual

# The steps of negativeTests with their values, in their order.
sed -n 's/^    {"\([^"]*\)", \(CKR_[A-Z_]*\),.*/\1 \2/p' "$source/tests/NegativeTests.cpp" > steps
sed -n '/^\.Ss Steps/,/^\.El/{/^\.It/{n;N;s/\n\.Dv / /;p}}' "$source/doc/kestrel.1" > manual
[ -s steps ]
same "steps in kestrel(1)" steps manual

# The usage text has another name for one test, in every release.
{ echo "No test matches 'opensslVersion'."; "$build/kestrel" | sed '1d;$d'; } > unknown
"$build/kestrel" opensslVersion | sed '1d;$d' | diff -u unknown -
grep -q opensslVersion "$source/doc/kestrel.1"

# proposals PROGRAM WORD...: what the shell proposes for the last of its words.
proposals() {
  bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); "_${1//-/_}"
    printf "%s\n" "${COMPREPLY[@]}"' - "$build/completion/$1.bash" "$@"
}
proposals kestrel '' | sort > proposed
same completion arguments proposed
[ "$(proposals kestrel -d wait)" = waitTest ]
[ -z "$(proposals kestrel -pw l)" ]
touch 'pin file'
[ "$(proposals kestrel -d login '<' pin)" = 'pin file' ]

proposals kestrel-run --test '' | sort > proposed
same "completion of kestrel-run" tests proposed
if [ -x "$build/kestrel-run" ]; then
  "$build/kestrel-run" --help | sed -n 's/^  \(-.,\)*\(--[a-z-]*\).*/\2/p' | sort > options
  sed -n 's/^\.It .*Fl \(.*,\)* *-\([a-z-]*\).*/--\2/p' "$source/doc/kestrel-run.1" | sort > manual
  same "options in kestrel-run(1)" options manual
  proposals kestrel-run -- | sort > proposed
  same "options in the completion of kestrel-run" options proposed
fi
[ "$(proposals kestrel-run --pin-file = pin)" = 'pin file' ]
[ "$(proposals kestrel-run name = pin)" = 'pin file' ]
[ -z "$(proposals kestrel-run --out pin)" ]

for directive in $(sed -n '/Names =$/,/;/s/.*" \(.*\)".*/\1/p' "$source/token/Config.cpp") \
  $(sed -n 's/^    {"\([a-z_]*\)", .*/\1/p' "$source/token/Harm.cpp"); do
  grep -q "^\.It Cm \(.* \)*$directive\>" "$source/doc/kestrel-token.7" ||
    { echo "kestrel-token(7) lacks $directive" >&2; exit 1; }
done

sed -n '/^\.Sh WAIVERS/,/^\.Pp/s/^\.It Cm //p' "$source/doc/kestrel-shim.7" | sort > manual
proposals kestrel-run --waive '' | grep -vx all | sort > proposed
same "waivers in the completion" manual proposed
sed -n 's/^ *{"\(.*\)", .*/\1/p' "$source/shim/Waivers.h" | sort > table
same "waivers in kestrel-shim(7)" table manual

if command -v mandoc > /dev/null; then mandoc -Tlint -Wwarning "$source"/doc/*.[17]; fi
