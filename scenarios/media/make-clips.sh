#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# make-clips.sh: makes the media files beside it anew, from the ffmpeg program's own test pictures
# and tones. They are kept in the tree, as another ffmpeg would make others; run it only to change
# what they hold.
#   film.mkv      23.976 fps for 4 s, times rounded to milliseconds, frames stored out of order
#   broadcast.ts  25 fps; the 33-bit clock starts again from 0 after 1.3 s, and after 2 s of media
#                 700 ms are missing, as where a recording was cut
set -eu
cd "$(dirname "$0")"

encode() { # frames per second, seconds, codec, quality, output and its options
    rate=$1 seconds=$2 codec=$3 quality=$4
    shift 4
    # Bit-exact: no version of the maker inside.
    ffmpeg -v error -y -f lavfi -i "testsrc2=size=64x36:rate=$rate:duration=$seconds" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$seconds" \
        -c:v "$codec" -q:v "$quality" -bf 2 -g 48 -c:a mp2 -b:a 32k -ac 1 \
        -flags:v +bitexact -flags:a +bitexact -fflags +bitexact -map_metadata -1 "$@"
}

# One piece of the recording; tables once a second, as they are most of so small a stream.
broadcast() { # time at which its clock begins, output
    encode 25 2 mpeg2video 12 -output_ts_offset "$1" -pat_period 1 -sdt_period 1 \
        -metadata service_provider=korvane -metadata service_name=test -f mpegts "$2"
}

encode 24000/1001 4 mpeg4 8 film.mkv
broadcast 95441 broadcast.ts
broadcast 95443.7 pipe: >>broadcast.ts
