# bash completion for kestrel(1)                                          -*- shell-script -*-
_kestrel() {
  COMPREPLY=()
  local word=${COMP_WORDS[COMP_CWORD]}
  local names='-pw -d -a all printInfo libInfo listSlots listTokens login signData decryptData
    findObjectsTest decryptUpdate signUpdate negativeTests displayCertificates printOpensslVersion
    dontBlockTest tokenInfoTest waitTest changePinTest'
  case ${COMP_WORDS[COMP_CWORD - 1]} in
    -pw) ;;  # a PIN follows: nothing to propose, and file names least of all
    *[\<\>])
      compopt -o filenames 2> /dev/null  # the shell completes: quote, and mark folders
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$names" -- "$word") ;;
  esac
}
complete -F _kestrel kestrel
