#!/usr/bin/env bash
# Runs a command on a device with a board, orvex and its control server, in namespaces that end with
# it:  world.sh BUILD COMMAND...
# In /run: "in" takes lines for the control server; "names", "token" and "h.db" are the board's;
# "board.sh" starts the board (DB names another history); "board.pid" contains its process ID.
set -euo pipefail
# shellcheck source=tests/support/world.sh
. "$(dirname "$0")/../../support/world.sh"
enter "$@"
bin=$2
shift 2
studio

cat >/run/tqrd.conf <<'CONF'
CFG GPO 1 SRCA=10.77.0.2/3
CFG GPO 2 SRCA=1:2
CFG GPO 3 SRCA=1:3
GPI 2 LHHHH
GPO 3 LHLHH
CONF
cat >/run/names <<'NAMES'
# Studio and tower
1:2 studio1 "Studio 1"
1:2:in1 studio1.door "Studio 1 door"
1:2:in2 studio1.fader "Studio 1 fader"
1:2:out1 studio1.red "Studio 1 red light"
1:2:out3 studio1.onair "Studio 1 on air"
1:3 tower "Tower"
1:3:in1 tower.mains "Mains at the tower"
1:3:out1 tower.lamp "<img src=x onerror=alert(1)>"
NAMES
mkfifo /run/in
exec 7<>/run/in
echo 0123456789abcdef0123 >/run/token
chmod 600 /run/token
"$bin/tools/sim/orvex-sim" /run/tqrd.conf <&7 >/run/sim.log 2>&1 &
"$bin/app/orvex" -debug >/run/orvex.log 2>&1 &
cat >/run/board.sh <<BOARD
"$bin/tools/board/orvex-board" -i eth0 --names /run/names --walls /run/walls.json --db "\${DB:-/run/h.db}" -r 127.0.0.1 \\
    --allow-set --token-file /run/token >>/run/board.log 2>&1 & echo \$! >/run/board.pid
BOARD
await /run/sim.log "ADD GPI 3"
bash /run/board.sh
"$@"
