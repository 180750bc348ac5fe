# bash completion for kestrel-probe(1)                                    -*- shell-script -*-
_kestrel_probe() {
  COMPREPLY=()
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} each module=
  local options='--token --pin-file --list --leave-objects --undefined --init-args --timeout --json
    --verbose --help --version'
  [[ $before == = ]] && before=${COMP_WORDS[COMP_CWORD - 2]}
  [[ $word == = ]] && word=
  # The first word that is no option and no option's value is the module.
  for ((each = 1; each < COMP_CWORD; ++each)); do
    case ${COMP_WORDS[each]} in
      --token | --pin-file | --init-args | --timeout | --json) ((++each)) ;;
      --list) module=none ;;
      -*) ;;
      *) module=${COMP_WORDS[each]} ;;
    esac
  done
  case $before:$word in
    --token:* | --init-args:* | --timeout:*) ;;  # the operator's own
    *:-*) mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word") ;;
    *)
      if [[ -n $module && $before != --pin-file && $before != --json ]]; then
        # The checks by their paths, a level at a time.
        local depth=${word//[^\/]/}
        mapfile -t COMPREPLY < <(compgen -W "$(kestrel-probe --list 2> /dev/null | cut -d ' ' -f 1 |
          cut -d / -f "1-$((${#depth} + 1))" | sort -u)" -- "$word")
      else
        compopt -o filenames 2> /dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
      fi
      ;;
  esac
}
complete -F _kestrel_probe kestrel-probe
