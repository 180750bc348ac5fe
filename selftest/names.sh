#!/bin/sh
# The registry, the manual page, the completion and the usage text name the same tests: the registry
# in app/TestRegistry.cpp is the list that the others are held against. Likewise the options of
# kestrel-run, and the directives of the software token and its manual page.
# Usage: names.sh SOURCE-FOLDER KESTREL
set -eu
source=$1
kestrel=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

same() { # same WHAT EXPECTED ACTUAL: sorted lists in files
  diff -u "$2" "$3" || { echo "$1: names differ from the registry's (-)" >&2; exit 1; }
}

sed -n 's/^ *TestEntry{"\([^"]*\)".*/\1/p' "$source/app/TestRegistry.cpp" | sort > registry
[ -s registry ] || { echo "no entry found in the registry" >&2; exit 1; }
# Options that are no entries of the registry.
printf '%s\n' -pw -d | sort - registry > arguments

sed -n '/^\.Sh DESC/,/^\.Ss What/s/^\.It \(Fl \|Cm \)\([A-Za-z]*\).*/\1\2/p' "$source/doc/kestrel.1" |
  sed 's/^Fl /-/; s/^Cm //' | sort > manual
same "manual page" arguments manual

# Usage text and registry differ in this one name, in every release.
"$kestrel" | sed -n 's/^  \([^ ]*\) .*/\1/p' | sort > usage
sed 's/^printOpensslVersion$/opensslVersion/' arguments | sort > advertised
same "usage text" advertised usage
{ echo "No test matches 'opensslVersion'."; "$kestrel" | sed '1d;$d'; } > unknown
"$kestrel" opensslVersion | sed '1d;$d' | diff -u unknown -
grep -q opensslVersion "$source/doc/kestrel.1"

# proposals PROGRAM WORD...: what the shell proposes for the last of its words.
proposals() {
  bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); "_${1//-/_}"
    printf "%s\n" "${COMPREPLY[@]}"' - "$source/completion/$1.bash" "$@"
}
proposals kestrel '' | sort > proposed
same completion arguments proposed
[ "$(proposals kestrel -d wait)" = waitTest ]
[ -z "$(proposals kestrel -pw l)" ]
touch 'pin file'
[ "$(proposals kestrel -d login '<' pin)" = 'pin file' ]

# kestrel-run has a list of its own of the tests, in which "all" is none.
grep -vx -e -a registry > tests
echo all > all
sed -n '/^\.Sh TESTS/,/^\.Ss/s/^\.It Cm //p' "$source/doc/kestrel-run.1" | sed 's/ , /\n/g' |
  sort - all > manual
same "kestrel-run(1)" tests manual
proposals kestrel-run --test '' | sort > proposed
same "completion of kestrel-run" tests proposed
sed -n 's/.*Test{\.name = "\([^"]*\)".*/\1/p' "$source/run/Tests.h" | sort - all > table
same run/Tests.h tests table
if [ -x "$kestrel-run" ]; then
  "$kestrel-run" --help | sed -n 's/^  \(-.,\)*\(--[a-z-]*\).*/\2/p' | sort > options
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
sed -n '/waiverNames{/,/}/p' "$source/shim/Settings.cpp" | grep -o '"[a-z-]*"' | tr -d '"' | sort > table
same "waivers in the manual page" table manual

if command -v mandoc > /dev/null; then mandoc -Tlint -Wwarning "$source"/doc/*.[17]; fi
