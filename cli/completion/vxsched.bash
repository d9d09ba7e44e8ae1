# bash completion for vxsched. To enable it: source <(vxsched completion bash)
_vxsched() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command= index words=
    local -a directory=()
    for ((index = 1; index < COMP_CWORD; index++)); do
        case ${COMP_WORDS[index]} in
        --directory) directory=(--directory "${COMP_WORDS[++index]}") ;;
        --lock-timeout) ((index++)) ;;
        -*) ;;
        *)
            command=${COMP_WORDS[index]}
            break
            ;;
        esac
    done
    local IFS=$'\n'
    case $previous in
    --directory | --chdir | --systemd)
        COMPREPLY=($(compgen -d -- "$word"))
        return
        ;;
    --user)
        COMPREPLY=($(compgen -u -- "$word"))
        return
        ;;
    --group)
        COMPREPLY=($(compgen -g -- "$word"))
        return
        ;;
    --program | --env-file)
        COMPREPLY=($(compgen -f -- "$word"))
        return
        ;;
    esac
    case $command:$word in
    *:-*)
        words=$(vxsched ${command:+"$command"} --help 2>/dev/null | grep -o -e '--[a-z][a-z-]*' | sort -u)
        ;;
    :*)
        words=$'list\nshow\nhistory\noutput\nstop\nnext\ncalendar\ncreate\nedit\nremove\npause\nresume\nperiod\nrun\nwake\nstatus\ncheck\nrepair\nexport\nimport\napply\ncompletion'
        ;;
    show:* | history:* | output:* | stop:* | edit:* | remove:* | pause:* | resume:* | period:* | run:*)
        words=$(vxsched "${directory[@]}" list --names 2>/dev/null)
        ;;
    completion:*)
        words=$'bash\nzsh\nfish'
        ;;
    *)
        COMPREPLY=($(compgen -f -- "$word"))
        return
        ;;
    esac
    # compgen -W would expand the names of tasks as shell words and so run commands in them.
    local name
    COMPREPLY=()
    while read -r name; do
        [[ -n $name && $name == "$word"* ]] && COMPREPLY+=("$(printf %q "$name")")
    done <<< "$words"
}
complete -F _vxsched vxsched
