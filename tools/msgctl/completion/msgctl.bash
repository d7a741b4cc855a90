# Completion of msgctl for bash: names, types, events and paths come from the live bus.

_msgctl_commands() {
  msgctl --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z]\+\) .*/\1/p'
}

_msgctl_options() {
  msgctl "$1" --help 2>/dev/null | grep -oE -- '(^|[ ,])--[a-z-]+' | tr -d ' ,' | sort -u
}

# The kind of words at each place of a command.
_msgctl_kind() {
  case $1:$2 in
    info:1 | exit:1 | count:1 | wait:1 | ping:1 | disconnect:1 | call:1 | send:1) echo names ;;
    call:2 | send:2 | serve:1 | fleet:3) echo types ;;
    publish:1 | listen:*) echo events ;;
    get:1 | post:1 | put:1 | patch:1 | delete:1) echo paths ;;
    notify:2) echo modules ;;
    mock:1 | replay:1) echo files ;;
  esac
}

_msgctl() {
  local word=${COMP_WORDS[COMP_CWORD]} last=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' place=0 words='' kind i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; ++i)); do
    [[ ${COMP_WORDS[i]} == -* ]] && continue
    if [[ -z $command ]]; then
      command=${COMP_WORDS[i]}
    else
      case ${COMP_WORDS[i - 1]} in
        --answer | --argument | --as | --board | --body | --broker | --by | --ca | \
          --certificate | --count | --credentials | --dm | --event | --exec | --file | --for | \
          --from | --gateway | --gone | --group | --interval | --keep | --key | --lines | \
          --most | --of | --payload | --policy | --prefix | --rotate | --seconds | \
          --server-group | --size | --sort | --speed | --sub-type | --timeout | --to | --type | \
          --user | --write | -f | -n | -w) ;;
        *) place=$((place + 1)) ;;
      esac
    fi
  done

  if [[ -z $command ]]; then
    words=$(_msgctl_commands)
  elif [[ $word == -* ]]; then
    words=$(_msgctl_options "$command")
  else
    case $last in
      --gone | --to) kind=names ;;
      --event) kind=events ;;
      --type) kind=types ;;
      --exec)
        mapfile -t COMPREPLY < <(compgen -c -- "$word")
        return
        ;;
      --file | --policy | --write | --ca | --certificate | --credentials | --key | -f | -w) kind=files ;;
      *) kind=$(_msgctl_kind "$command" $((place + 1))) ;;
    esac
    case $command:$((place + 1)) in
      sync:1) words='wait post' ;;
      policy:1) words='check test learn' ;;
      fleet:1) words='list listen get call' ;;
      notify:1) words='modules request send' ;;
      complete:1) words='names types events paths modules' ;;
    esac
    if [[ $kind == files ]]; then
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
    fi
    [[ -z $kind ]] || words=$(msgctl complete "$kind" --timeout 500 2>/dev/null)
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}

complete -F _msgctl msgctl
