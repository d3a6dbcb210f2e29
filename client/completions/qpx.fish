# Completion of qpx for fish: put this file into ~/.config/fish/completions.

# Whether there is no command yet. Values of options are none, which fish's own test takes them for.
function __qpx_needs_command
    not __fish_seen_subcommand_from call channel systems password ping load trace codes doctor
end

complete -c qpx -f
complete -c qpx -n __qpx_needs_command -a call -d 'a server program with a COMMAREA'
complete -c qpx -n __qpx_needs_command -a channel -d 'a server program with a channel'
complete -c qpx -n __qpx_needs_command -a systems -d 'the servers that the Gateway knows'
complete -c qpx -n __qpx_needs_command -a password -d 'verify or change a password'
complete -c qpx -n __qpx_needs_command -a ping -d 'how long answers take'
complete -c qpx -n __qpx_needs_command -a load -d 'many calls at once'
complete -c qpx -n __qpx_needs_command -a trace -d 'read traces of the library'
complete -c qpx -n __qpx_needs_command -a codes -d 'what return codes mean'
complete -c qpx -n __qpx_needs_command -a doctor -d 'what stands in the way'
complete -c qpx -n __qpx_needs_command -l version
complete -c qpx -l host -x
complete -c qpx -l port -x
complete -c qpx -l timeout -x
complete -c qpx -l applid -x
complete -c qpx -l qualifier -x
complete -c qpx -l server -x
complete -c qpx -l user -x
complete -c qpx -l config -r -F
complete -c qpx -l color -x -a 'auto always never'
complete -c qpx -l json
complete -c qpx -l help
complete -c qpx -n '__fish_seen_subcommand_from call' -l text -x
complete -c qpx -n '__fish_seen_subcommand_from call' -l hex -x
complete -c qpx -n '__fish_seen_subcommand_from call' -l length -x
complete -c qpx -n '__fish_seen_subcommand_from call' -l ccsid -x
complete -c qpx -n '__fish_seen_subcommand_from call' -l transaction -x
complete -c qpx -n '__fish_seen_subcommand_from call' -l call-timeout -x
complete -c qpx -n '__fish_seen_subcommand_from call' -l password-fd -x
complete -c qpx -n '__fish_seen_subcommand_from channel' -l channel -x
complete -c qpx -n '__fish_seen_subcommand_from channel' -l get -x
complete -c qpx -n '__fish_seen_subcommand_from channel' -l transaction -x
complete -c qpx -n '__fish_seen_subcommand_from channel' -l call-timeout -x
complete -c qpx -n '__fish_seen_subcommand_from channel' -l password-fd -x
complete -c qpx -n '__fish_seen_subcommand_from password' -l password-fd -x
complete -c qpx -n '__fish_seen_subcommand_from ping' -l count -x
complete -c qpx -n '__fish_seen_subcommand_from ping' -l interval -x
complete -c qpx -n '__fish_seen_subcommand_from ping' -l program -x
complete -c qpx -n '__fish_seen_subcommand_from ping' -l transaction -x
complete -c qpx -n '__fish_seen_subcommand_from ping' -l call-timeout -x
complete -c qpx -n '__fish_seen_subcommand_from ping' -l password-fd -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l threads -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l connections -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l window -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l duration -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l count -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l size -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l text -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l length -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l transaction -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l call-timeout -x
complete -c qpx -n '__fish_seen_subcommand_from load' -l password-fd -x
complete -c qpx -n '__fish_seen_subcommand_from call' -l file -r -F
complete -c qpx -n '__fish_seen_subcommand_from call' -l unit -r -F
complete -c qpx -n '__fish_seen_subcommand_from call' -l as -x -a 'auto text hex dump raw'
complete -c qpx -n '__fish_seen_subcommand_from channel' -l as -x -a 'auto text hex dump raw'
complete -c qpx -n '__fish_seen_subcommand_from call' -l extend -x -a 'commit backout'
complete -c qpx -n '__fish_seen_subcommand_from password; and not __fish_seen_subcommand_from verify change' -a 'verify change'
complete -c qpx -n '__fish_seen_subcommand_from trace' -F
complete -c qpx -n '__fish_seen_subcommand_from trace' -l slow -x
complete -c qpx -n '__fish_seen_subcommand_from trace' -l failed
complete -c qpx -n '__fish_seen_subcommand_from trace' -l all
complete -c qpx -n '__fish_seen_subcommand_from trace' -l call -x
complete -c qpx -n '__fish_seen_subcommand_from trace' -l data
complete -c qpx -n '__fish_seen_subcommand_from trace' -l connection -x
complete -c qpx -n '__fish_seen_subcommand_from trace' -s f -l follow
complete -c qpx -n '__fish_seen_subcommand_from doctor' -l pid -x -a '(__fish_complete_pids)'
