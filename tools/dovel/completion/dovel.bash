# bash completion for dovel: commands, their options, files where a command takes
# one, and the workloads of `dovel bench`.
_dovel() {
    local cur prev words cword
    _init_completion 2>/dev/null || {
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD - 1]}
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
    }
    local commands="serve dump get ls set rm watch files keygen bench demo"
    local global="-h --help -v --verbose -vv"
    local client="--timeout --key-file"
    local server="--listen --key-file --allow --max-clients --max-per-address"

    # The command is the first word that is not an option (-v may come before it);
    # `at` is where it stands.
    local at=1
    while [[ $at -lt $cword && ${words[at]} == -* ]]; do
        at=$((at + 1))
    done
    if [[ $cword -eq $at ]]; then
        COMPREPLY=($(compgen -W "$commands $global --version" -- "$cur"))
        return
    fi
    case $prev in
    --tree | --save | --key-file)
        COMPREPLY=($(compgen -f -- "$cur"))
        return
        ;;
    --scratch)
        COMPREPLY=($(compgen -d -- "$cur"))
        return
        ;;
    --listen | --timeout | --save-interval | --writable | --allow | --max-clients | \
        --max-per-address | --seconds | --attributes | --clients | --trips)
        return
        ;;
    esac
    local options
    case ${words[at]} in
    serve) options="--tree --save --save-interval --read-only --writable $server" ;;
    dump) options="--compact $client" ;;
    get | set | rm) options="$client" ;;
    ls) options="--json $client" ;;
    watch) options="--json --initial $client" ;;
    keygen) options="" ;;
    demo) options="--seconds" ;;
    bench)
        if [[ $cword -eq $((at + 1)) ]]; then
            COMPREPLY=($(compgen -W "updates coalesce latency initial fanout files" -- "$cur"))
            return
        fi
        options="--seconds --attributes --clients --trips --scratch --json"
        ;;
    files)
        if [[ $cword -eq $((at + 1)) ]]; then
            COMPREPLY=($(compgen -W "serve pull --help" -- "$cur"))
            return
        fi
        case ${words[at + 1]} in
        serve) options="$server" ;;
        pull) options="--delete --timeout --key-file" ;;
        esac
        if [[ $cur != -* ]]; then
            COMPREPLY=($(compgen -d -- "$cur"))
            return
        fi
        ;;
    esac
    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options $global" -- "$cur"))
    fi
}
complete -F _dovel dovel
