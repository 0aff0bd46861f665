# Completion of mivra for fish.

set -l commands relay record transcode snapshot probe convert sps doctor

complete -c mivra -n "not __fish_seen_subcommand_from $commands" -f
complete -c mivra -s h -l help -d 'Print help and exit'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -l version -d 'Print the version and exit'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -a relay -d 'Copy the streams of files into other files'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -a record -d 'Record from a trigger on, and what came before it'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -a transcode -d 'Decode the streams of a file and encode them anew'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -a snapshot -d 'Write a picture of a file, or a sheet of them'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -a probe -d 'Tell what the streams of files are'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -a convert -d 'Copy a file, its H.264 or AAC in another form'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -a sps -d 'Change the size or aspect ratio that H.264 tells'
complete -c mivra -n "not __fish_seen_subcommand_from $commands" -a doctor -d 'Tell what a relay needs and what is missing'

complete -c mivra -n '__fish_seen_subcommand_from relay record transcode snapshot probe convert sps' -a 'tcp:// tcp-listen:// udp://' -d 'The network'

complete -c mivra -n '__fish_seen_subcommand_from relay' -s o -l output -r -F -d 'Another output'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l realtime -d 'As fast as the media plays'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l rate -x -d 'So many times as fast as the media plays'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l seek -x -d 'Begin at the key frame at or before this second'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l loop -x -d 'Read the inputs so many times more'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l for -x -d 'Stop after so many seconds of media'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l stats -x -d 'Seconds between two lines of figures'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l json -d 'One JSON object a line'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l log -r -F -d 'Write a log'
complete -c mivra -n '__fish_seen_subcommand_from relay' -l log-level -x -a '0 1 2 3 4 5' -d 'How much to log'

complete -c mivra -n '__fish_seen_subcommand_from record' -s o -l output -r -F -d 'Where to record to'
complete -c mivra -n '__fish_seen_subcommand_from record' -l preroll -x -d 'How much to keep before the trigger'
complete -c mivra -n '__fish_seen_subcommand_from record' -l cache -x -a 'memory disk' -d 'Where to keep it'
complete -c mivra -n '__fish_seen_subcommand_from record' -l trigger -x -a 'key signal after:' -d 'What begins the recording'
complete -c mivra -n '__fish_seen_subcommand_from record' -l for -x -d 'Stop so many seconds after the trigger'
complete -c mivra -n '__fish_seen_subcommand_from record' -l rotate -x -d 'Begin another file so often'
complete -c mivra -n '__fish_seen_subcommand_from record' -l no-samples -x -d 'Give up when an input brings nothing for so long'
complete -c mivra -n '__fish_seen_subcommand_from record' -l stats -x -d 'Seconds between two lines of figures'
complete -c mivra -n '__fish_seen_subcommand_from record' -l json -d 'One JSON object a line'
complete -c mivra -n '__fish_seen_subcommand_from record' -l log -r -F -d 'Write a log file'
complete -c mivra -n '__fish_seen_subcommand_from record' -l log-level -x -a '0 1 2 3 4 5' -d 'How much to log'

complete -c mivra -n '__fish_seen_subcommand_from transcode' -l video -x -a 'h264 h265 mpeg2 mpeg4 mjpeg vp8 vp9 copy' -d 'What video becomes'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l audio -x -a 'aac mp2 mp3 ac3 opus flac pcm copy' -d 'What audio becomes'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l size -x -d 'Size of the pictures'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l bitrate -x -d 'Bits a second'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l fps -x -d 'Pictures a second'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l preset -x -a 'ultrafast superfast veryfast faster fast medium slow slower veryslow placebo' -d 'How hard the encoder tries'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l threads -x -d 'Threads of each decoder and encoder'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l no-hardware -d 'Software only'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l start -x -d 'Begin at this second, exactly'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l for -x -d 'Stop after so many seconds of media'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l stats -x -d 'Seconds between two lines of figures'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l json -d 'One JSON object a line'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l log -r -F -d 'Write a log'
complete -c mivra -n '__fish_seen_subcommand_from transcode' -l log-level -x -a '0 1 2 3 4 5' -d 'How much to log'

complete -c mivra -n '__fish_seen_subcommand_from snapshot' -l at -x -d 'The picture shown at this second'
complete -c mivra -n '__fish_seen_subcommand_from snapshot' -l grid -x -d 'So many pictures side by side, and rows'
complete -c mivra -n '__fish_seen_subcommand_from snapshot' -l size -x -d 'Size of the picture, or of each on a sheet'
complete -c mivra -n '__fish_seen_subcommand_from snapshot' -s o -l output -r -F -d 'Where to'

complete -c mivra -n '__fish_seen_subcommand_from probe' -l json -d 'One JSON object a file'
complete -c mivra -n '__fish_seen_subcommand_from probe' -l nal -d 'List the NAL units'
complete -c mivra -n '__fish_seen_subcommand_from probe' -l sdp -d 'Lines of a session description'

complete -c mivra -n '__fish_seen_subcommand_from convert' -l to -x -a 'annexb avcc adts asc' -d 'The form'

complete -c mivra -n '__fish_seen_subcommand_from sps' -l crop -x -d 'Luma samples to cut off each side'
complete -c mivra -n '__fish_seen_subcommand_from sps' -l aspect -x -d 'Aspect ratio of a sample'
complete -c mivra -n '__fish_seen_subcommand_from sps' -s o -l output -r -F -d 'The output'

complete -c mivra -n '__fish_seen_subcommand_from doctor' -f
complete -c mivra -n '__fish_seen_subcommand_from doctor' -l json -d 'One JSON object'
complete -c mivra -n '__fish_seen_subcommand_from doctor' -l log -r -F -d 'A log file to try'
