#!/usr/bin/env python3
"""Twenty channels deliver for long while their server is killed again and again.

soak_test.py [--minutes N]   a quarter of a minute, or thirty with QUENOR_NETWORK_FULL=1
"""
import os, random, statistics, sys, threading, time

import support
from support import FULL, SANITIZED, say, sha256

CHANNELS = 20
MESSAGES_PER_MINUTE = 200000 / 30
MINUTES = 30.0 if FULL else 0.25
if "--minutes" in sys.argv:
    at = sys.argv.index("--minutes")
    MINUTES = float(sys.argv[at + 1])
    del sys.argv[at:at + 2]


class Sampler:
    """Descriptors, threads and memory of a process, every second."""

    def __init__(self, pid):
        self.pid, self.samples, self.over = pid, [], threading.Event()
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _run(self):
        while not self.over.wait(1):
            self.samples.append({"descriptors": support.descriptors_of(self.pid),
                                 "threads": len(support.threads_of(self.pid)),
                                 "resident_kb": support.resident_kb(self.pid)})

    def finish(self):
        """For each figure: median of the first quarter, of the last, and the highest."""
        self.over.set()
        self.thread.join()
        quarter = max(1, len(self.samples) // 4)
        figures = {}
        for name in self.samples[0]:
            values = [sample[name] for sample in self.samples]
            figures[name] = (statistics.median(values[:quarter]),
                             statistics.median(values[-quarter:]), max(values))
        return figures


class SoakTest(support.Case):
    def test_server_is_killed_again_and_again(self):
        support.make_certificates(self.folder, ["DNS:localhost", "IP:127.0.0.1"])
        seed = int(os.environ.get("QUENOR_TEST_SEED", random.randrange(1 << 30)))
        chance = random.Random(seed)
        messages = round(MESSAGES_PER_MINUTE * MINUTES / CHANNELS) * CHANNELS
        feed_s = MINUTES * 60 * 0.75 if MINUTES <= 2 else MINUTES * 60 - 60
        say(f"soak: {messages} messages over {CHANNELS} channels in {feed_s:.0f} s, seed={seed}")
        # Some of what is on record is not yet answered when it is killed.
        judge = self.collector(options=["--misbehave", "all: delay=20"])
        app = self.application(judge.url("127.0.0.1"), channels=CHANNELS, cache=True)
        app.do("start")
        sampler = Sampler(app.pid)
        started = time.monotonic()
        app.tell(f"spread {messages} {feed_s}")
        kills = 0
        while True:
            # From two seconds to half a minute; more often in a short run.
            time.sleep(chance.uniform(2, 6 if MINUTES <= 2 else 30))
            if time.monotonic() - started >= feed_s:
                break
            judge.kill()
            kills += 1
            time.sleep(chance.uniform(0, 1 if MINUTES <= 2 else 3))
            judge.start()
        app.answer()
        app.do(f"wait acknowledged {messages}")
        seconds = time.monotonic() - started
        figures = sampler.finish()
        counts = app.counts()
        self.assertEqual(0, app.finish(), open(app.errors).read())
        judge.stop()

        accepted = judge.accepted()
        expected = {sha256(f"app-{channel}/{i}/{'x' * (i % 200)}".encode())
                    for channel in range(CHANNELS) for i in range(messages // CHANNELS)}
        duplicates = sum(accepted.values()) - len(accepted)
        say(f"soak: messages={messages} lost={len(expected - set(accepted))} "
            f"duplicates={duplicates} unknown={len(set(accepted) - expected)} kills={kills} "
            f"seconds={seconds:.0f} resend_limit={2**32 - 1}")
        say("soak: " + " ".join(f"{name}={value}" for name, value in counts.items()))
        for name, (first, last, highest) in figures.items():
            say(f"soak: {name}: first quarter {first:.0f}, last quarter {last:.0f}, "
                f"highest {highest}")
        self.assertEqual(expected, set(accepted))
        self.assertGreater(kills, 0)
        # A message comes again only after an attempt whose answer did not arrive.
        self.assertLessEqual(duplicates, counts["failed"])
        self.assertEqual((0, 0), (counts["dropped"], counts["refused"]))
        self.assertEqual((1, 0), (counts["closes"], counts["outstanding"]), "the library's books")
        # A queue for each channel, the HTTP client and its watch, main; a sanitizer has one of its own.
        self.assertLessEqual(figures["threads"][2], CHANNELS + (4 if SANITIZED else 3))
        # A file for each channel, six connections with their successors, and a few.
        self.assertLessEqual(figures["descriptors"][2], CHANNELS + 24)
        self.assertLessEqual(figures["descriptors"][1], figures["descriptors"][0] + 8)
        first, last, _ = figures["resident_kb"]
        # AddressSanitizer keeps up to 256 MiB of what was freed.
        self.assertLessEqual(last, first * 2 + (256 << 10) if SANITIZED else first * 1.25 + 4096)


if __name__ == "__main__":
    support.main()
