# Completion of msgctl for fish: names, types, events and paths come from the live bus.

function __msgctl_commands
    msgctl --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z]*\)  *\(.*\)/\1\t\2/p'
end

function __msgctl_offer
    msgctl complete $argv[1] --timeout 500 2>/dev/null
end

function __msgctl_options
    msgctl (commandline -opc)[2] --help 2>/dev/null | grep -oE -- '(^|[ ,])--[a-z-]+' | tr -d ' ,'
end

# Options that have a value.
set -g __msgctl_valued --{answer,argument,as,board,body,broker,by,ca,certificate,count,credentials,dm,event,exec,file,for,from,gateway,gone,group,interval,keep,key,lines,most,of,payload,policy,prefix,rotate,seconds,server-group,size,sort,speed,sub-type,timeout,to,type,user,write} -f -n -w

# True when that many words come before this one: the command and its arguments, without options.
function __msgctl_place
    set -l place 0
    set -l before ''
    for word in (commandline -opc)[2..-1]
        if not string match -q -- '-*' $word; and not contains -- $before $__msgctl_valued
            set place (math $place + 1)
        end
        set before $word
    end
    test $place -eq $argv[1]
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
complete -c msgctl -n '__fish_seen_subcommand_from fleet; and __msgctl_place 1' -a 'list listen get call'
complete -c msgctl -n '__fish_seen_subcommand_from sync; and __msgctl_place 1' -a 'wait post'
complete -c msgctl -n '__fish_seen_subcommand_from policy; and __msgctl_place 1' -a 'check test learn'
complete -c msgctl -n '__fish_seen_subcommand_from complete; and __msgctl_place 1' -a 'names types events paths modules'
complete -c msgctl -n '__fish_seen_subcommand_from mock replay' -F
complete -c msgctl -n 'string match -q -- "-*" (commandline -ct)' -a '(__msgctl_options)'
complete -c msgctl -l timeout -x -d 'Milliseconds to wait'
complete -c msgctl -l as -x -d 'The name under which to register'
complete -c msgctl -n '__fish_seen_subcommand_from wait' -l gone -x -a '(__msgctl_offer names)'
complete -c msgctl -n '__fish_seen_subcommand_from wait' -l event -x -a '(__msgctl_offer events)'
complete -c msgctl -n '__fish_seen_subcommand_from ping' -l type -x -a '(__msgctl_offer types)'
complete -c msgctl -n '__fish_seen_subcommand_from replay' -l to -x -a '(__msgctl_offer names)'
complete -c msgctl -n '__fish_seen_subcommand_from monitor capture latency top waits diagram postmortem' -s f -l file -r -F
complete -c msgctl -n '__fish_seen_subcommand_from capture' -s w -l write -r -F
