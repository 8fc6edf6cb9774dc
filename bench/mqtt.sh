#!/usr/bin/env bash
# Measures the bridge in the world of tests/tools/mqtt/world.sh: mqtt.sh BUILD CHANGES
# The way from a contact to a far lamp, then so many changes at 5000 a second, and its memory.
set -euo pipefail
bin=$1 changes=$2
printf 'listener 1883\nallow_anonymous true\nset_tcp_nodelay true\nmax_queued_messages 0\n' >/run/broker.conf
ip netns exec hub mosquitto -c /run/broker.conf >/run/broker.log 2>&1 &
sleep 0.5
pids=()
for site in studio tower; do
    ip netns exec "$site" "$bin/tools/mqtt/orvex-mqtt" "/run/$site.conf" >"/run/$site.mqtt" 2>&1 &
    pids+=($!)
done
until grep -qs "is online" /run/studio.mqtt && grep -qs "is online" /run/tower.mqtt; do sleep 0.1; done
# The device would answer for its input, which no one presses here.
sleep 1
"$bin/bench/orvex-mqtt-path" 1000

memory() { awk '/VmRSS/ { print $2 }' "/proc/${pids[0]}/status"; }
ticks() { awk '{ print $14 + $15 }' "/proc/${pids[0]}/stat"; }
ip netns exec hub mosquitto_sub -t 'orvex/studio/event/3/#' >/run/events 2>&1 &
sleep 0.5
before=$(memory) used=$(ticks) start=$EPOCHREALTIME
awk -v n="$changes" 'BEGIN { for (i = 0; i < n; i++) printf "{\"time\":%.4f,\"pin\":\"3:%d:in1\",\"level\":\"%s\",\"kind\":\"report\"}\n", 1000 + i / 5000, i % 200, int(i / 200) % 2 ? "H" : "L" }' >/run/load
ip netns exec studio "$bin/tools/ctl/orvexctl" send -i eth0 /run/load >/dev/null
seconds=$(awk -v a="$start" -v b="$EPOCHREALTIME" 'BEGIN { print b - a }')
sleep 1
awk -v n="$changes" -v s="$seconds" -v got="$(wc -l </run/events)" -v b="$before" -v a="$(memory)" -v t=$(($(ticks) - used)) \
    'BEGIN { printf "%d changes in %.1f s (%.0f a second): %d events arrived, %.0f us of processor time each\nresident: %d KiB before, %d KiB after\n", n, s, n / s, got, t * 10000 / n, b, a }'
