# bash completion for kestrel-run(1)                                      -*- shell-script -*-
_kestrel_run() {
  COMPREPLY=()
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local options='--test --every-key --pin-file --timeout --repeat --between --token --mechanisms
    --waive --trace --out --baseline --junit --json --markdown --html --kestrel --quiet --help
    --version'
  local names='all printInfo libInfo listSlots listTokens login signData decryptData findObjectsTest
    decryptUpdate signUpdate negativeTests displayCertificates printOpensslVersion dontBlockTest
    tokenInfoTest waitTest changePinTest'
  # The shell takes "--out=DIR" and "NAME=MODULE" for three words.
  [[ $before == = ]] && before=${COMP_WORDS[COMP_CWORD - 2]}
  [[ $word == = ]] && word=
  case $before:$word in
    -t:* | --test:*) mapfile -t COMPREPLY < <(compgen -W "$names" -- "$word") ;;
    --mechanisms:*) mapfile -t COMPREPLY < <(compgen -W 'signable multipart' -- "$word") ;;
    --waive:*)
      local waivers='all length-query salt-length fixed-slot read-only'
      mapfile -t COMPREPLY < <(compgen -W "$waivers" -- "$word")
      ;;
    --timeout:* | --repeat:* | --between:* | --token:*) ;;  # the operator's own
    -o:* | --out:* | --baseline:*)
      compopt -o filenames 2> /dev/null  # the shell completes: quote, and mark folders
      mapfile -t COMPREPLY < <(compgen -d -- "$word")
      ;;
    *:-*) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word") ;;
    *)
      compopt -o filenames 2> /dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      ;;
  esac
}
complete -F _kestrel_run kestrel-run
