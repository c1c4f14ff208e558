#!/bin/sh
# Makes the default programme of the simulator once: ten seconds of an H.264 test pattern with an
# AAC tone, multiplexed at the layer rate of the common one-segment broadcast (Mode 3, guard 1/8,
# QPSK 2/3: 64 packets per 231.336 ms frame, 416087 bit/s) with null packets filling the rest.
# Needs ffmpeg (not a dependency of the project; the result is committed).
set -eu
out="${1:-$(dirname "$0")/../simulator/fixtures/programme.ts}"
ffmpeg -hide_banner -loglevel error -y \
  -f lavfi -i "testsrc=size=320x240:rate=15" \
  -f lavfi -i "sine=frequency=1000:sample_rate=48000:beep_factor=4" \
  -t 10 \
  -c:v libx264 -profile:v baseline -level 1.3 -preset veryfast -pix_fmt yuv420p \
  -b:v 230k -maxrate 250k -bufsize 250k -g 15 -keyint_min 15 -sc_threshold 0 \
  -c:a aac -b:a 48k -ac 1 \
  -f mpegts -muxrate 416087 -pcr_period 40 -mpegts_service_id 1 \
  -metadata service_provider="ZFNISDBT" -metadata service_name="Test pattern" \
  "$out"
ls -l "$out"
