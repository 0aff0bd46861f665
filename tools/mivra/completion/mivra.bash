# Completion of mivra for bash.

_mivra() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command= i
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
            relay | record | transcode | snapshot | doctor | probe | convert | sps)
                command=${COMP_WORDS[i]}
                break
                ;;
        esac
    done

    COMPREPLY=()
    case $command:$previous in
        relay:--for | relay:--stats | sps:--crop | sps:--aspect | relay:--rate | relay:--seek | relay:--loop) return ;;
        record:--preroll | record:--for | record:--rotate | record:--no-samples | record:--stats) return ;;
        transcode:--size | transcode:--bitrate | transcode:--fps | transcode:--threads | transcode:--start) return ;;
        transcode:--for | transcode:--stats | snapshot:--at | snapshot:--grid | snapshot:--size) return ;;
        transcode:--video)
            mapfile -t COMPREPLY < <(compgen -W "h264 h265 mpeg2 mpeg4 mjpeg vp8 vp9 copy" -- "$word")
            return
            ;;
        transcode:--audio)
            mapfile -t COMPREPLY < <(compgen -W "aac mp2 mp3 ac3 opus flac pcm copy" -- "$word")
            return
            ;;
        transcode:--preset)
            mapfile -t COMPREPLY < <(compgen -W "ultrafast superfast veryfast faster fast medium slow slower \
                veryslow placebo" -- "$word")
            return
            ;;
        record:--cache) mapfile -t COMPREPLY < <(compgen -W "memory disk" -- "$word") && return ;;
        record:--trigger) mapfile -t COMPREPLY < <(compgen -W "key signal after:" -- "$word") && return ;;
        convert:--to)
            mapfile -t COMPREPLY < <(compgen -W "annexb avcc adts asc" -- "$word")
            return
            ;;
        relay:--log-level | record:--log-level | transcode:--log-level)
            mapfile -t COMPREPLY < <(compgen -W "0 1 2 3 4 5" -- "$word")
            return
            ;;
    esac
    case $command:$word in
        :*) mapfile -t COMPREPLY < <(compgen -W "relay record transcode snapshot probe convert sps doctor --help \
            --version" -- "$word") ;;
        relay:-*)
            mapfile -t COMPREPLY < <(compgen -W "--help --output --realtime --rate --seek --loop --for --stats --json --log \
                --log-level" -- "$word")
            ;;
        record:-*)
            mapfile -t COMPREPLY < <(compgen -W "--help --output --preroll --cache --trigger --for --rotate --no-samples \
                --stats --json --log --log-level" -- "$word")
            ;;
        transcode:-*)
            mapfile -t COMPREPLY < <(compgen -W "--help --video --audio --size --bitrate --fps --preset --threads \
                --no-hardware --start --for --stats --json --log --log-level" -- "$word")
            ;;
        snapshot:-*) mapfile -t COMPREPLY < <(compgen -W "--help --at --grid --size --output" -- "$word") ;;
        doctor:-*) mapfile -t COMPREPLY < <(compgen -W "--help --json --log" -- "$word") ;;
        probe:-*) mapfile -t COMPREPLY < <(compgen -W "--help --json --nal --sdp" -- "$word") ;;
        convert:-*) mapfile -t COMPREPLY < <(compgen -W "--help --to" -- "$word") ;;
        sps:-*) mapfile -t COMPREPLY < <(compgen -W "--help --crop --aspect --output" -- "$word") ;;
        relay:* | record:* | probe:* | convert:* | sps:*)
            mapfile -t COMPREPLY < <(compgen -f -- "$word"; compgen -W "tcp:// tcp-listen:// udp://" -- "$word")
            ;;
        transcode:* | snapshot:*) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
        doctor:*) [[ $previous == --log ]] && mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    esac
}

complete -o filenames -F _mivra mivra
