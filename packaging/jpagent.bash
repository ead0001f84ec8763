# SPDX-License-Identifier: Apache-2.0
# Bash completion of jpagent: its commands, their options, interface names, and the words that "tell" takes.
# Where it has nothing to say, bash completes the names of files.

_jpagent_tell() {
  local previous=$1 words=${*:2}
  case $previous in
    show) echo interfaces neighbors upstream downstream counters ;;
    events) echo on off ;;
    quit) echo now ;;
    counters) echo --prometheus ;;
    interface) _jpagent_interfaces ;;
    *)
      case $words in
        '') echo join leave prune unprune interface show events trace help quit ;;
        interface\ *)
          echo up down hello hello-hold hello-delay interval hold override propagation priority tracking ;;
      esac ;;
  esac
}

_jpagent_interfaces() {
  local link
  for link in /sys/class/net/*/; do
    [ -e "$link" ] && basename "$link"
  done
}

_jpagent_words() {
  local command=$1 previous=$2
  case $previous in
    --log) echo journald stderr ;;
    --check) [ "$command" = simulate ] && echo --rewrite --pcap --scrivo --help ;;
    --pcap | --scrivo | --config | --control | --record | --rp | --deny | --trace) ;;
    *)
      case $command in
        replay) echo --json --rp --deny --lenient --trace --scrivo --help ;;
        trace) echo --json --chrome --help ;;
        sample) echo --help ;;
        simulate) echo --check --rewrite --pcap --scrivo --help ;;
        run)
          echo --json --control --config --check --pcap --record --rp --deny --trace --scrivo --log --help
          _jpagent_interfaces ;;
        tell) echo --json --help ;;
      esac ;;
  esac
}

_jpagent() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]}
  local words at
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    words='replay trace sample simulate run tell --help --version'
  else
    words=$(_jpagent_words "$command" "$previous")
    if [ "$command" = tell ]; then
      # Behind the path of the socket.
      for ((at = 2; at < COMP_CWORD; ++at)); do [[ ${COMP_WORDS[at]} == -* ]] || break; done
      ((at == COMP_CWORD)) || words=$(_jpagent_tell "$previous" "${COMP_WORDS[@]:at + 1:COMP_CWORD - at - 1}")
    fi
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  # Options only where one is begun, so that there are files, too.
  [[ $current == -* ]] || mapfile -t COMPREPLY < <(printf '%s\n' "${COMPREPLY[@]}" | grep -v '^-\|^$')
}

complete -o default -F _jpagent jpagent
