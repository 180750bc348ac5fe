#!/bin/sh
# The registry, the manual page, the completion and the usage text name the same tests: the registry
# in app/TestRegistry.cpp is the list that the others are held against. Likewise the directives of the
# software token and its manual page.
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

# What the shell proposes for a word, with the words before it.
proposals() {
  bash -c '. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kestrel
    printf "%s\n" "${COMPREPLY[@]}"' - "$source/completion/kestrel.bash" kestrel "$@"
}
proposals '' | sort > proposed
same completion arguments proposed
[ "$(proposals -d wait)" = waitTest ]
[ -z "$(proposals -pw l)" ]
touch 'pin file'
[ "$(proposals -d login '<' pin)" = 'pin file' ]

for directive in $(sed -n '/Names =$/,/;/s/.*" \(.*\)".*/\1/p' "$source/token/Config.cpp"); do
  grep -q "^\.It.* *Cm $directive\>" "$source/doc/kestrel-token.7" ||
    { echo "kestrel-token(7) lacks $directive" >&2; exit 1; }
done

if command -v mandoc > /dev/null; then mandoc -Tlint -Wwarning "$source"/doc/*.[17]; fi
