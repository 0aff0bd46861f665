# The film that ./run makes, relays and checks. Sourced; $mivra is the tool.

duration_of() { ffprobe -v error -show_entries format=duration -of csv=p=0 "$1"; }

# FILE: "video h264 1280x720 600" and "audio aac 2 939", one line a stream. A transport stream's are listed once for
# the program and once for the file.
streams_of() {
    ffprobe -v error -count_packets -show_entries \
        stream=index,codec_type,codec_name,width,height,channels,nb_read_packets -of default=nw=1 "$1" |
        awk -F= '
            $1 == "index" {index_of = $2} $1 == "codec_name" {name = $2} $1 == "codec_type" {type = $2}
            $1 == "width" {shape = $2} $1 == "height" {shape = shape "x" $2} $1 == "channels" {shape = $2}
            $1 == "nb_read_packets" && !seen[index_of]++ {print type, name, shape, $2}'
}

make_film() {  # FILE: 20 s, 1280x720, H.264 with B-frames and stereo AAC
    ffmpeg -v error -nostdin -y \
        -f lavfi -i 'testsrc2=size=1280x720:rate=30:duration=20' \
        -f lavfi -i 'sine=frequency=440:sample_rate=48000:duration=20' \
        -f lavfi -i 'sine=frequency=660:sample_rate=48000:duration=20' \
        -filter_complex '[1][2]amerge=inputs=2[sound]' -map 0:v -map '[sound]' \
        -c:v libx264 -preset veryfast -bf 2 -g 60 -pix_fmt yuv420p -b:v 2M \
        -c:a aac -ac 2 -b:a 128k -movflags +faststart "$1"
}

row() { printf '  %-8s %-20s %8s   %-12s %8s %9s %11s\n' "$@"; }

summary() {  # FILE
    local file=$1 video audio
    video=$(streams_of "$file" | awk '$1 == "video" {print $2 " " $3 "\t" $4}')
    audio=$(streams_of "$file" | awk '$1 == "audio" {print $2 " " $3 " ch\t" $4}')
    row "${file##*/}" "${video%$'\t'*}" "${video#*$'\t'}" "${audio%$'\t'*}" "${audio#*$'\t'}" \
        "$(duration_of "$file" | cut -c1-6) s" "$(stat -c %s "$file") B"
}

check_output() {  # INPUT OUTPUT: the same streams with as many packets, and no damage that a decoder finds
    local expected got errors
    expected=$(streams_of "$1" | sort)
    got=$(streams_of "$2" | sort)
    [ "$expected" = "$got" ] ||
        die "${2##*/} is not what went in. Expected:"$'\n'"$expected"$'\n'"Found:"$'\n'"$got"
    errors=$(ffprobe -v error -show_frames -show_entries frame=pts "$2" 2>&1 >/dev/null)
    [ -z "$errors" ] || die "${2##*/} does not decode cleanly:"$'\n'"$errors"
}

demo() {  # FOLDER
    local folder=$1 begin
    mkdir -p "$folder"
    rm -f "$folder"/in.mp4 "$folder"/out.ts "$folder"/out.mp4
    echo "Making a film of 20 s, 1280x720, H.264 with B-frames and stereo AAC ..."
    make_film "$folder/in.mp4"
    echo "Relaying it to MPEG-TS and MP4 at once:"
    echo "  mivra relay in.mp4 out.ts -o out.mp4"
    begin=$(date +%s%N)
    "$mivra" relay "$folder/in.mp4" "$folder/out.ts" -o "$folder/out.mp4"
    local took=$((($(date +%s%N) - begin) / 1000000))
    echo "Checking what came out with ffprobe ..."
    check_output "$folder/in.mp4" "$folder/out.ts"
    check_output "$folder/in.mp4" "$folder/out.mp4"
    echo
    row file video packets audio packets length size
    summary "$folder/in.mp4"
    summary "$folder/out.ts"
    summary "$folder/out.mp4"
    echo
    echo "Every packet arrived in both files; the relay took $took ms. They are in $folder."
    echo "Next: ./run doctor, ./run relay --help, ./test"
}
