#!/usr/bin/env bash
# Runs a command with two sites, studio and tower, each a host with orvex, its control server and a
# bus, and a third host, hub, for the broker; all in namespaces that end with it:
#   world.sh BUILD COMMAND...
# In /run: "SITE.in" takes lines for the control server of a site, SITE.conf configures its bridge.
# The hub is 10.78.0.1, the studio .2 and the tower .3.
set -euo pipefail
if ! command -v mosquitto >/dev/null && [ ! -x /usr/sbin/mosquitto ]; then
    echo "no broker here: mosquitto is not installed"
    exit 77
fi
# shellcheck source=tests/support/world.sh
. "$(dirname "$0")/../../support/world.sh"
enter "$@"
bin=$2
shift 2
export PATH=$PATH:/usr/sbin
ip netns add hub
ip -n hub link set lo up
ip -n hub link add br0 address 02:00:00:00:00:01 type bridge # the same, whatever joins it
ip -n hub addr add 10.78.0.1/24 dev br0
ip -n hub link set br0 up

site() { # NAME NUMBER ADDRESS
    ip netns add "$1"
    ip -n "$1" link set lo up
    ip -n "$1" link add eth0 type veth peer name bus
    ip -n "$1" link set bus up
    ip -n "$1" link set eth0 up
    ip -n "$1" addr add "10.77.$2.1/24" dev eth0
    ip -n "$1" route add 224.0.0.0/4 dev eth0
    ip -n "$1" link add wan type veth peer name "$1" netns hub
    ip -n "$1" addr add "10.78.0.$2/24" dev wan
    ip -n "$1" link set wan up
    ip -n hub link set "$1" master br0 up
    printf 'CFG GPO 1 SRCA=%s\nCFG GPO 2 SRCA=1:9\n' "$3" >"/run/$1.sim"
    mkfifo "/run/$1.in"
    ip netns exec "$1" "$bin/tools/sim/orvex-sim" "/run/$1.sim" <>"/run/$1.in" >"/run/$1.log" 2>&1 &
    await "/run/$1.log" "listening on"
    ip netns exec "$1" "$bin/app/orvex" -debug >"/run/$1.orvex.log" 2>&1 &
    await "/run/$1.log" " < "
    printf '%s\n' "site $1" "broker 10.78.0.1" "interface eth0" "names /dev/null" "ask 2" \
        "link studio:1:2:in1 -> tower:7:4:out1 on-loss H 2" >"/run/$1.conf"
}
site studio 2 1:2
site tower 3 7:4
"$@"
