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
ffmpeg -v error -y -f lavfi -i testsrc2=size=320x180:rate=1/6:duration=18 -c:v mpeg4 slides.mkv
ffmpeg -v error -y -i 24.mp4 -itsoffset 1 -i 24.mp4 -map 0:v -map 1:a -c copy late-sound.mkv
ffmpeg -v error -y -i 24.mp4 -g 300 -q:v 5 -c:a copy one-key.ts
cp one-key.ts damaged.ts
dd if=/dev/zero of=damaged.ts bs=1000 seek=100 count=20 conv=notrunc status=none
ffmpeg -v error -y -t 0.01 -i 24.mp4 -i 24.mp4 -map 0:v -map 1:a -c copy one-frame.mp4
ffmpeg -v error -y -i 24.mkv -c copy -output_ts_offset 10 from-10s.mkv
ffmpeg -v error -y -f lavfi -i sine=duration=1 tone.wav
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
cp "$self" made
