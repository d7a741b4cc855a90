# Completion of msgctl for fish: names, types, events and paths come from the live bus.

function __msgctl_commands
    msgctl --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z]*\)  *\(.*\)/\1\t\2/p'
end

function __msgctl_offer
    msgctl complete $argv[1] --timeout 500 2>/dev/null
end

# True when as many words stand behind the command.
function __msgctl_place
    test (count (commandline -opc)) -eq (math $argv[1] + 1)
end

set -l clients info exit count wait ping disconnect call send
complete -c msgctl -f
complete -c msgctl -n __fish_use_subcommand -a '(__msgctl_commands)'
complete -c msgctl -n "__fish_seen_subcommand_from $clients; and __msgctl_place 1" -a '(__msgctl_offer names)'
complete -c msgctl -n '__fish_seen_subcommand_from call send; and __msgctl_place 2' -a '(__msgctl_offer types)'
complete -c msgctl -n '__fish_seen_subcommand_from serve; and __msgctl_place 1' -a '(__msgctl_offer types)'
complete -c msgctl -n '__fish_seen_subcommand_from publish; and __msgctl_place 1' -a '(__msgctl_offer events)'
complete -c msgctl -n '__fish_seen_subcommand_from listen' -a '(__msgctl_offer events)'
complete -c msgctl -n '__fish_seen_subcommand_from get post put patch delete; and __msgctl_place 1' -a '(__msgctl_offer paths)'
complete -c msgctl -n '__fish_seen_subcommand_from notify; and __msgctl_place 1' -a 'modules request send'
complete -c msgctl -n '__fish_seen_subcommand_from notify; and __msgctl_place 2' -a '(__msgctl_offer modules)'
complete -c msgctl -n '__fish_seen_subcommand_from sync; and __msgctl_place 1' -a 'wait post'
complete -c msgctl -n '__fish_seen_subcommand_from complete; and __msgctl_place 1' -a 'names types events paths modules'
complete -c msgctl -l json -d 'One JSON object a line'
complete -c msgctl -l timeout -x -d 'Milliseconds to wait'
complete -c msgctl -l as -x -d 'The name under which to register'
complete -c msgctl -n '__fish_seen_subcommand_from wait' -l gone -x -a '(__msgctl_offer names)'
complete -c msgctl -n '__fish_seen_subcommand_from wait' -l event -x -a '(__msgctl_offer events)'
complete -c msgctl -n '__fish_seen_subcommand_from ping' -l type -x -a '(__msgctl_offer types)'
