#!/usr/bin/env python3
"""real_fleet.py REAL_FLEET QUENOR_FLEET COLLECTOR: two thousand channels of the shipped library in real
time, their collector killed for half a minute, beside the same scenario in virtual time: requests a
second and reports that wait, side by side, and what of them must agree."""
import csv
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import threading
import time

CHANNELS, EVERY_S, OUTAGE_S, BACK_S, LENGTH_S = 2000, 10, 30, 60, 100
SCENARIO = f"""title Two thousand channels, an outage of half a minute
channels {CHANNELS}
report every {EVERY_S}s phase spread
size 200
owner limit none
server capacity 1000000 queue 1s refusal 0 latency 1ms
from {OUTAGE_S}s for {BACK_S - OUTAGE_S}s: refuse
length {LENGTH_S}s
"""


class Collector:
    def __init__(self, program, folder, port=0):
        file = pathlib.Path(folder) / f"port.{time.monotonic_ns()}"
        self.process = subprocess.Popen([program, "--listen", f"127.0.0.1:{port}", "--port-file", file],
                                        stdout=subprocess.DEVNULL)
        while not file.exists():
            if self.process.poll() is not None:
                sys.exit("the collector does not start")
            time.sleep(0.01)
        self.port = int(file.read_text())

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()


def real(program, collector_program, folder):
    """[(requests, waiting)] of each second, and what was lost."""
    collector = Collector(collector_program, folder)
    port = collector.port
    fleet = subprocess.Popen([program, f"http://127.0.0.1:{port}/", str(CHANNELS), str(EVERY_S),
                              str(LENGTH_S)], stdout=subprocess.PIPE, text=True)
    assert fleet.stdout.readline() == "started\n"
    running = [collector]

    def come_back():
        running[0] = Collector(collector_program, folder, port)

    timers = [threading.Timer(OUTAGE_S, collector.kill), threading.Timer(BACK_S, come_back)]
    for timer in timers:
        timer.start()
    rows = [tuple(map(int, line.split())) for line in fleet.stdout]
    for timer in timers:
        timer.join()
    code = fleet.wait()
    running[0].kill()
    assert code == 0 and len(rows) >= LENGTH_S, (code, len(rows))
    return [(row[1], row[4]) for row in rows[:LENGTH_S]], rows[-1][3]


def simulated(program, folder):
    path = pathlib.Path(folder) / "real.fleet"
    path.write_text(SCENARIO)
    subprocess.run([program, "run", path, "--out", folder], check=True, stdout=subprocess.DEVNULL)
    with open(pathlib.Path(folder) / "real.csv") as file:
        rows = list(csv.DictReader(file))
    return [(int(row["requests"]), int(row["waiting"])) for row in rows], int(rows[-1]["lost"])


def gone(rows, calm):
    """Seconds after the outage until no more wait than before it."""
    return next((i - BACK_S for i in range(BACK_S, LENGTH_S) if rows[i][1] <= calm), None)


def main(real_fleet, quenor_fleet, collector):
    with tempfile.TemporaryDirectory() as folder:
        model, model_lost = simulated(quenor_fleet, folder)
        world, world_lost = real(real_fleet, collector, folder)
    print("seconds   requests/s: model, real   waiting: model, real")
    for begin in range(0, LENGTH_S, 5):
        rates = [sum(row[0] for row in rows[begin:begin + 5]) / 5 for rows in (model, world)]
        print(f"{begin:3} to {begin + 5:3}   {rates[0]:8.1f} {rates[1]:8.1f}       "
              f"{model[begin + 4][1]:8} {world[begin + 4][1]:8}")
    spans = {"calm": (10, OUTAGE_S), "outage": (OUTAGE_S + 1, BACK_S),
             "the first five seconds back": (BACK_S, BACK_S + 5)}
    failed = model_lost + world_lost > 0
    for name, (begin, end) in spans.items():
        ours, theirs = (sum(row[0] for row in rows[begin:end]) / (end - begin)
                        for rows in (model, world))
        print(f"{name}: {ours:.1f} and {theirs:.1f} requests a second, ratio {ours / theirs:.3f}")
        failed |= not 0.9 < ours / theirs < 1.1
    most = [max(row[1] for row in rows) for rows in (model, world)]
    calm = CHANNELS // 20
    back = [gone(rows, calm) for rows in (model, world)]
    print(f"most that waited: {most[0]} and {most[1]}; gone after {back[0]} and {back[1]} s; "
          f"lost: {model_lost} and {world_lost}")
    failed |= not 0.95 < most[0] / most[1] < 1.05 or None in back or abs(back[0] - back[1]) > 2
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*(os.path.abspath(path) for path in sys.argv[1:4])))
