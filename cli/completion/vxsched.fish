# fish completion for vxsched. To enable it, put it into ~/.config/fish/completions, or: vxsched completion fish | source
set -l commands list show history output stop next calendar create edit remove pause resume period run wake status check repair export import apply completion
complete -c vxsched -f
complete -c vxsched -n "not __fish_seen_subcommand_from $commands" -a "$commands"
complete -c vxsched -n "__fish_seen_subcommand_from show history output stop edit remove pause resume period run" -a "(vxsched list --names 2>/dev/null)"
complete -c vxsched -n "__fish_seen_subcommand_from completion" -a "bash zsh fish"
complete -c vxsched -n "__fish_seen_subcommand_from check import apply create" -F
complete -c vxsched -l directory -x -a "(__fish_complete_directories)"
complete -c vxsched -l lock-timeout -x
complete -c vxsched -l utc
complete -c vxsched -n "__fish_seen_subcommand_from list show history next calendar status check apply" -l json
complete -c vxsched -n "__fish_seen_subcommand_from create edit remove pause resume period run stop import apply repair" -l dry-run
