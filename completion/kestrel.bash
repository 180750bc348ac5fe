# bash completion for kestrel(1)                                          -*- shell-script -*-
_kestrel() {
  COMPREPLY=()
  # A PIN follows: nothing to propose, and file names least of all.
  [[ ${COMP_WORDS[COMP_CWORD - 1]} == -pw ]] && return
  local names='-pw -d -a all printInfo libInfo listSlots listTokens login signData decryptData
    findObjectsTest decryptUpdate signUpdate negativeTests displayCertificates printOpensslVersion
    dontBlockTest tokenInfoTest waitTest changePinTest'
  mapfile -t COMPREPLY < <(compgen -W "$names" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _kestrel kestrel
