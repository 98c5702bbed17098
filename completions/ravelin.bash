# bash completion for ravelin.
_ravelin() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local commands="get status clear"
  local options="--output --dir --remote-header-name --input-file --on-conflict --on-change
    --same-file --remote-time --xattr --no-split --connections --min-split-size --separate-header
    --max-downloads --sha256 --sha256-from --retry --patience --header --limit-rate --proxy --cacert --user-agent
    --timeout --no-safeguards --quiet --events --events-interval --help"
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$word")
    return
  fi
  case $before in
  -c | --on-conflict)
    mapfile -t COMPREPLY < <(compgen -W "resume replace keep_both stop" -- "$word")
    return
    ;;
  --on-change)
    mapfile -t COMPREPLY < <(compgen -W "restart fail" -- "$word")
    return
    ;;
  -o | --output | -i | --input-file | --cacert | --sha256-from)
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    return
    ;;
  -d | --dir)
    mapfile -t COMPREPLY < <(compgen -d -- "$word")
    return
    ;;
  --connections | --min-split-size | -j | --max-downloads | --sha256 | --retry | --patience | -H | \
    --header | --limit-rate | -x | --proxy | -A | --user-agent | --timeout | --events-interval)
    return # free text: nothing to suggest
    ;;
  esac
  if [[ ${COMP_WORDS[1]} == get ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
  elif [[ ${COMP_WORDS[1]} == clear && $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "--complete --help" -- "$word")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}
complete -o filenames -F _ravelin ravelin
