#!/usr/bin/env bash
# Measures the bridge in the world of tests/tools/mqtt/world.sh: mqtt.sh BUILD CHANGES
# The delay from a contact to a far lamp, then that many changes at more than 5000 per second, and the
# bridge's memory.
set -euo pipefail
bin=$1 changes=$2
printf 'listener 1883\nallow_anonymous true\nset_tcp_nodelay true\nmax_queued_messages 0\n' >/run/broker.conf
ip netns exec hub mosquitto -c /run/broker.conf >/run/broker.log 2>&1 &
sleep 0.5
pids=()
begin() { # NAME OF THE PROGRAM, ARGUMENT IN THE STUDIO, IN THE TOWER
    pids=()
    for site in studio tower; do
        ip netns exec "$site" "$1" "$2" >"/run/$site.mqtt" 2>&1 &
        pids+=($!)
        set -- "$1" "${3:-}"
    done
}
end() {
    kill "${pids[@]}"
    wait "${pids[@]}" || true
}
bridges() {
    begin "$bin/tools/mqtt/orvex-mqtt" /run/studio.conf /run/tower.conf
    until grep -qs "is online" /run/studio.mqtt && grep -qs "is online" /run/tower.mqtt; do sleep 0.1; done
    # Waits for the first reads of the input: the device's answer would interfere.
    sleep 1
}
for round in 1 2 3; do
    begin "$bin/bench/orvex-mqtt-bare" contact lamp
    sleep 1
    "$bin/bench/orvex-mqtt-path" "contact, bare, lamp" 500 | tee -a /run/ways
    end
    bridges
    "$bin/bench/orvex-mqtt-path" "contact, bridges, lamp" 500 | tee -a /run/ways
    [ "$round" = 3 ] || end
done
awk '{ name = substr($0, 1, 22); match($0, /median +[0-9]+/); sum[name] += substr($0, RSTART + 6, RLENGTH - 6); count[name]++ }
     END { for (name in sum) if (name ~ /^bare/) clients = sum[name] / count[name]; else if (name ~ /bare,/) bare = sum[name] / count[name]; else ours = sum[name] / count[name]
           printf "the bridges: %.2f times the bare ones, %.2f times two bare clients\n", ours / bare, ours / clients }' /run/ways
# Where events were lost: datagrams at the bridge's full sockets, events dropped by the bridge, and
# messages dropped by the broker.
# Of the studio's bridge: two processes.
bridge=("${pids[0]}" "$(cat "/proc/${pids[0]}/task/${pids[0]}/children")")
bridge[1]=${bridge[1]// /}
memory() { awk '/VmRSS/ { sum += $2 } END { print sum }' "/proc/${bridge[0]}/status" "/proc/${bridge[1]}/status"; }
ticks() { awk '{ sum += $14 + $15 } END { print sum }' "/proc/${bridge[0]}/stat" "/proc/${bridge[1]}/stat"; }
bus_lost() {
    local sockets
    sockets=$(find "/proc/${pids[0]}/fd" -lname 'socket:*' -printf '%l ' | tr -dc '0-9 ')
    # shellcheck disable=SC2016 # fields of awk
    ip netns exec studio awk -v own=" $sockets" 'index(own, " " $10 " ") { n += $13 } END { print n + 0 }' /proc/net/udp
}
ip netns exec hub mosquitto_sub -t 'orvex/studio/event/3/#' >/run/events 2>&1 &
# The broker publishes its own figures every 10 s.
# shellcheck disable=SC2016 # no variable
ip netns exec hub mosquitto_sub -t '$SYS/broker/publish/messages/dropped' >/run/dropped 2>&1 &
sleep 0.5
before=$(memory) used=$(ticks) start=$EPOCHREALTIME
awk -v n="$changes" 'BEGIN { for (i = 0; i < n; i++) printf "{\"time\":%.4f,\"pin\":\"3:%d:in1\",\"level\":\"%s\",\"kind\":\"report\"}\n", 1000 + i / 5200, i % 200, int(i / 200) % 2 ? "H" : "L" }' >/run/load
ip netns exec studio "$bin/tools/ctl/orvexctl" send -i eth0 /run/load >/dev/null
seconds=$(awk -v a="$start" -v b="$EPOCHREALTIME" 'BEGIN { print b - a }')
sleep 11
awk -v n="$changes" -v s="$seconds" -v got="$(wc -l </run/events)" -v b="$before" -v a="$(memory)" -v t=$(($(ticks) - used)) \
    -v bus="$(bus_lost)" -v own="$(grep -c 'events were dropped' /run/studio.mqtt || true)" -v broker="$(tail -n 1 /run/dropped)" \
    'BEGIN { printf "%d changes in %.1f s (%.0f a second): %d events arrived, %.0f us of processor time each\n", n, s, n / s, got, t * 10000 / n
             printf "lost: %d datagrams for want of room at the bridge, %d times events in it, %d messages in the broker\n", bus, own, broker
             printf "resident: %d KiB before, %d KiB after\n", b, a }'
