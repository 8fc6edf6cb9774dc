"""Measures orvex-gpio on the kernel of scripts/gpiosim (scripts/bench --gpio).

A delay begins with the write that changes the level of a simulated line, or with the line that is sent
to the server, and ends when the result can be read. The next event waits until everything is idle.
"""

import pathlib
import re
import socket
import statistics
import subprocess
import sys
import time

BUILD, EDGES = sys.argv[1], int(sys.argv[2])
BASE = pathlib.Path("/run/gpio/sim0")
CONFIG = """input 1.1 line sim0-0 pull-up
output 1.1 line sim0-4
CFG GPO 1 SRCA=1:2
SET NIC_IPADDR=10.77.0.1
"""


def receive(client):
    return client.recv(4096), time.monotonic()


def row(name, times):
    times.sort()
    print(f"  {name:44} {statistics.median(times) * 1e3:8.2f} {times[int(len(times) * 0.99)] * 1e3:8.2f}")


def main():
    pathlib.Path("/run/board.conf").write_text(CONFIG, "ascii")
    with subprocess.Popen([f"{BUILD}/tools/gpio/orvex-gpio", "/run/board.conf"]) as server:
        bus = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        bus.bind(("239.192.255.4", 2055))
        bus.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                       socket.inet_aton("239.192.255.4") + socket.inet_aton("10.77.0.1"))
        receive(bus)  # the daemon has subscribed
        time.sleep(5)
        bus.setblocking(False)
        try:
            while bus.recv(4096):
                pass
        except BlockingIOError:
            bus.setblocking(True)
        client = socket.create_connection(("127.0.0.1", 93))
        client.sendall(b"ADD GPI 1\n")
        receive(client)
        lines, datagrams, lamps = [], [], []
        with open(BASE / "sim_gpio0/pull", "w", encoding="ascii", buffering=1) as pull:
            for i in range(EDGES):
                time.sleep(0.005)
                begin = time.monotonic()
                pull.write("pull-up" if i % 2 else "pull-down")
                pull.flush()
                lines.append(receive(client)[1] - begin)
                datagrams.append(receive(bus)[1] - begin)
                receive(bus)
                pull.seek(0)
        with open(BASE / "sim_gpio4/value", "rb", buffering=0) as value:
            for i in range(EDGES):
                time.sleep(0.005)
                begin = time.monotonic()
                client.sendall(b"GPO 1 H\n" if i % 2 else b"GPO 1 L\n")
                while int(value.read() or b"-1") != i % 2:
                    value.seek(0)
                lamps.append(time.monotonic() - begin)
                value.seek(0)
                receive(client)
        status = pathlib.Path(f"/proc/{server.pid}/status")
        time.sleep(1)
        before = status.read_text("ascii")
        time.sleep(60)
        after = status.read_text("ascii")
        woken = [int(re.search(r"\nvoluntary_ctxt_switches:\s+(\d+)", text)[1]) for text in (before, after)]
        print(f"{'Delay in ms, of ' + str(EDGES) + ' events':46}   median     99th")
        row("from the edge to the line at a client", lines)
        row("from the edge to the datagram on the bus", datagrams)
        row("from the line at the server to the lamp", lamps)
        print(f"Idle: {int(re.search(r'VmRSS:.* (.*) kB', after)[1]):,} kB resident, "
              f"woken {woken[1] - woken[0]} times in a minute")
        server.terminate()


main()
