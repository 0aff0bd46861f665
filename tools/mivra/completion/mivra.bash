# Completion of mivra for bash.

_mivra() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command= i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            relay | doctor | probe | convert | sps)
                command=${COMP_WORDS[i]}
                break
                ;;
        esac
    done

    COMPREPLY=()
    case $command:$previous in
        relay:--for | relay:--stats | sps:--crop | sps:--aspect) return ;;
        convert:--to)
            mapfile -t COMPREPLY < <(compgen -W "annexb avcc adts asc" -- "$word")
            return
            ;;
        relay:--log-level)
            mapfile -t COMPREPLY < <(compgen -W "0 1 2 3 4 5" -- "$word")
            return
            ;;
    esac
    case $command:$word in
        :*) mapfile -t COMPREPLY < <(compgen -W "relay probe convert sps doctor --help --version" -- "$word") ;;
        relay:-*)
            mapfile -t COMPREPLY < <(compgen -W "--help --output --realtime --for --stats --json --log --log-level" \
                -- "$word")
            ;;
        doctor:-*) mapfile -t COMPREPLY < <(compgen -W "--help --json --log" -- "$word") ;;
        probe:-*) mapfile -t COMPREPLY < <(compgen -W "--help --json --nal --sdp" -- "$word") ;;
        convert:-*) mapfile -t COMPREPLY < <(compgen -W "--help --to" -- "$word") ;;
        sps:-*) mapfile -t COMPREPLY < <(compgen -W "--help --crop --aspect --output" -- "$word") ;;
        relay:* | probe:* | convert:* | sps:*) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        doctor:*) [[ $previous == --log ]] && mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    esac
}

complete -o filenames -F _mivra mivra
