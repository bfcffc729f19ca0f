#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# make-clips.sh DIRECTORY: the clips and the bad inputs of the play tests, once. What was made by an
# earlier run is kept; this file's copy at the end says that all of it is there.
set -eu

self=$(realpath "$0")
mkdir -p "$1"
cd "$1"
! cmp -s "$self" made || exit 0

clip() { # name, frames per second, seconds
    ffmpeg -v error -y -f lavfi -i "testsrc2=size=320x180:rate=$2:duration=$3" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$3" \
        -c:v mpeg4 -q:v 5 -c:a aac -movflags +faststart -shortest "$1"
}

clip 24.mp4 24 3
clip 23.976.mp4 24000/1001 3
clip 30.mp4 30 3
clip 60.mp4 60 3
clip 25.mp4 25 3
ffmpeg -v error -y -i 24.mp4 -c copy -an silent.mp4
ffmpeg -v error -y -i 24.mp4 -c copy 24.mkv
ffmpeg -v error -y -itsoffset 8 -i 24.mp4 -stream_loop 3 -i 24.mp4 -map 0:v -map 1:a \
    -c copy late-pictures.mkv
ffmpeg -v error -y -i late-pictures.mkv -c:v mpeg2video -q:v 5 -c:a copy late-pictures.ts
ffmpeg -v error -y -stream_loop 3 -i 24.mp4 -itsoffset 9 -i 24.mp4 -map 0:v -map 1:a \
    -c copy very-late-sound.mkv
ffmpeg -v error -y -i very-late-sound.mkv -c:v mpeg2video -q:v 5 -c:a copy very-late-sound.ts
ffmpeg -v error -y -f lavfi -i testsrc2=size=320x180:rate=1/6:duration=18 -c:v mpeg4 slides.mkv
ffmpeg -v error -y -i 24.mp4 -itsoffset 1 -i 24.mp4 -map 0:v -map 1:a -c copy late-sound.mkv
ffmpeg -v error -y -i 24.mp4 -g 300 -q:v 5 -c:a copy one-key.ts
cp one-key.ts damaged.ts
dd if=/dev/zero of=damaged.ts bs=1000 seek=100 count=20 conv=notrunc status=none
ffmpeg -v error -y -t 0.01 -i 24.mp4 -i 24.mp4 -map 0:v -map 1:a -c copy one-frame.mp4
ffmpeg -v error -y -i 24.mkv -c copy -output_ts_offset 10 from-10s.mkv
ffmpeg -v error -y -f lavfi -i sine=duration=1 tone.wav
# Brightness counts the pictures; a click at 1.5 s.
ffmpeg -v error -y -f lavfi -i "color=size=320x180:rate=24:duration=3,format=yuv420p,
    geq=lum='20+2*N':cb=128:cr=128" -f lavfi -i "aevalsrc='0.1*sin(2*PI*440*t)+
    if(between(t,1.5,1.502),0.8,0)':s=44100:d=3" -c:v mpeg4 -q:v 2 -c:a aac -b:a 192k \
    -movflags +faststart numbered.mp4
size=$(wc -c <24.mp4)
head -c $((size * 6 / 10)) 24.mp4 >half.mp4
head -c $((size * 6 / 10)) 24.mkv >half.mkv
size=$(wc -c <24.mp4)
head -c $((size * 97 / 100)) 24.mp4 >most.mp4
size=$(wc -c <24.mkv)
head -c $((size * 93 / 100)) 24.mkv >most.mkv
second=$(ffprobe -v error -select_streams v -show_entries packet=pos -of csv=p=0 24.mkv | sed -n 2p)
head -c "$second" 24.mkv >first.mkv
head -c 500 24.mp4 >cut.mp4
head -c 50000 /dev/urandom >noise.mp4
: >empty.mp4

# Streams and programs; what is to be known of pictures; inputs beside files.
mpeg2() { # name, source options, encoder options, seconds into the programme
    # shellcheck disable=SC2086
    ffmpeg -v error -y -f lavfi -i "testsrc2=$2:duration=1" -c:v mpeg2video -b:v 2M $3 \
        -output_ts_offset "$4" "$1"
}
mpeg2 first.ts size=320x180:rate=25 "" 0
mpeg2 second.ts size=640x360:rate=25 "" 1
cat first.ts second.ts >resized.ts
mpeg2 other.ts size=640x360:rate=25 "-streamid 0:512" 1
cat first.ts other.ts >renumbered.ts
cat first.ts other.ts first.ts >there-and-back.ts
mpeg2 interlaced.ts size=320x180:rate=25 "-flags +ilme+ildct -top 1" 0
mpeg2 plain.m2v size=320x180:rate=30000/1001 "" 0
# Every picture asks for its first field again.
perl -0777 -pe 's/(\x00\x00\x01\xb5[\x80-\x8f]..)(.)/$1 . chr(ord($2) | 2)/gse' plain.m2v >telecine.m2v
ffmpeg -v error -y -i 24.mp4 -i 25.mp4 -map 0 -map 1 -c:v mpeg2video -c:a copy \
    -program title=one:program_num=1:st=0:st=1 -program title=two:program_num=2:st=2:st=3 two.ts
ffmpeg -v error -y -i 24.mp4 -c:v mpeg2video -c:a copy 24.ts
ffmpeg -v error -y -f lavfi -i testsrc2=size=320x180:rate=24:duration=1 -c:v ffv1 \
    -pix_fmt yuv420p10le -color_trc smpte2084 -colorspace bt2020nc -color_primaries bt2020 hdr.mkv
ffmpeg -v error -y -i 24.mp4 -c copy -metadata:s:v rotate=90 rotated.mp4
ffmpeg -v error -y -f lavfi -i color=size=7680x4320:rate=24:duration=0.5 -c:v mjpeg -q:v 20 \
    -pix_fmt yuvj420p 8k.mkv
ffmpeg -v error -y -i 24.mp4 -t 1 -start_number 1 img%03d.png
ffmpeg -v error -y -i tone.wav -i img001.png -map 0 -map 1 -c:a aac -c:v png \
    -disposition:v attached_pic song.m4a
printf "file 24.ts\nfile 24.ts\n" >list.txt
printf 'ffconcat version 1.0\nfile 24.ts\n' >list.ffconcat
printf '#EXTM3U\n#EXT-X-TARGETDURATION:3\n#EXTINF:3,\n24.ts\n#EXT-X-ENDLIST\n' >list.m3u8
printf '#EXTM3U\n#EXT-X-TARGETDURATION:3\n#EXTINF:3,\nhttp://127.0.0.1:9/24.ts\n#EXT-X-ENDLIST\n' \
    >remote.m3u8
ffmpeg -v error -y -i 24.mp4 -c:v libx264 -g 24 -an no-times.h264
# Splices: the second part begins an hour or six seconds later, or a minute earlier.
part() { # name, offset
    ffmpeg -v error -y -i 24.mp4 -q:v 5 -c:a copy -output_ts_offset "$2" "$1"
}
part at-1m.ts 60
part at-1h.ts 3600
part at-69s.ts 69
cat at-1m.ts at-1h.ts >an-hour-on.ts
cat at-1m.ts at-69s.ts >six-seconds-on.ts
cat at-1h.ts at-1m.ts >an-hour-back.ts
cat at-1m.ts at-1m.ts at-1m.ts >repeated.ts
# The same with sound under other numbers; another codec under another number, and under the same.
ffmpeg -v error -y -i 24.mp4 -c:v mpeg2video -c:a copy -output_ts_offset 3 -streamid 0:512 \
    -streamid 1:513 other-numbers.ts
cat 24.ts other-numbers.ts >renumbered-sound.ts
for number in 256 512; do
    ffmpeg -v error -y -i 24.mp4 -c:v libx264 -an -output_ts_offset 1 -streamid 0:$number avc.ts
    cat first.ts avc.ts >avc-as-$number.ts
done
# A second video stream that begins where the first one ends.
ffmpeg -v error -y -i 24.mp4 -itsoffset 3 -i 24.mp4 -map 0:v -map 1:v -c copy one-after-the-other.mkv
cp "$self" made
