# vxsched: completion for bash. Source it: source <(vxsched completion bash)
_vxsched() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command= index words=
    local -a where=()
    for ((index = 1; index < COMP_CWORD; index++)); do
        case ${COMP_WORDS[index]} in
        --directory) where=(--directory "${COMP_WORDS[++index]}") ;;
        --patience) ((index++)) ;;
        -*) ;;
        *)
            command=${COMP_WORDS[index]}
            break
            ;;
        esac
    done
    local IFS=$'\n'
    case $previous in
    --directory)
        COMPREPLY=($(compgen -d -- "$word"))
        return
        ;;
    --program)
        COMPREPLY=($(compgen -f -- "$word"))
        return
        ;;
    esac
    case $command:$word in
    *:-*)
        words=$(vxsched ${command:+"$command"} --help 2>/dev/null | grep -o -e '--[a-z][a-z-]*' | sort -u)
        ;;
    :*)
        words=$'list\nshow\nhistory\nnext\ncreate\nedit\nremove\npause\nresume\nperiod\nrun\nwake\nstatus\ncheck\nrepair\nexport\nimport\ncompletion'
        ;;
    show:* | history:* | edit:* | remove:* | pause:* | resume:* | period:* | run:*)
        words=$(vxsched "${where[@]}" list --names 2>/dev/null)
        ;;
    completion:*)
        words=$'bash\nzsh\nfish'
        ;;
    *)
        COMPREPLY=($(compgen -f -- "$word"))
        return
        ;;
    esac
    # Not by compgen -W, which would expand what a task's name holds.
    local one
    COMPREPLY=()
    while read -r one; do
        [[ -n $one && $one == "$word"* ]] && COMPREPLY+=("$(printf %q "$one")")
    done <<< "$words"
}
complete -F _vxsched vxsched
