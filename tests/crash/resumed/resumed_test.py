#!/usr/bin/env python3
"""A host in each language, killed and started again until all that it had to say has arrived.
QUENOR_CRASH_FULL=1 in the environment: a thousand messages, of several hosts at a time."""
import collections, os, pathlib, random, select, subprocess, sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[1] / "network"))
import support

FULL = bool(os.environ.get("QUENOR_CRASH_FULL"))
HOSTS, MESSAGES, KILLS = (4, 250, 8) if FULL else (1, 40, 3)
# A message has five letters and more, so that the last kill comes before all is delivered.
MOST_LETTERS = 4 * MESSAGES // KILLS
MOST_TURNS = 20000


class Host:
    """Of one name. Starts again when it has been killed."""

    def __init__(self, test, random, name, program, url, *more):
        self.test, self.random, self.name = test, random, name
        self.command = [*program, test.folder, url, name, str(MESSAGES), *more]
        self.errors = os.path.join(test.folder, name + ".stderr")
        self.letters = collections.Counter()
        self.kills = 0
        self.start()

    def start(self):
        self.until_kill = self.random.randint(1, MOST_LETTERS) if self.kills < KILLS else 0
        self.child = self.test.ending(
            support.Child(self.command, output=self.errors, stdout=subprocess.PIPE, bufsize=0), "kill")
        self.pipe = self.child.process.stdout

    def runs_on(self):
        """What to do when there is something to read. False at its end."""
        letter = self.pipe.read(1)
        if not letter:
            code = self.child.process.wait()
            self.test.assertEqual(0, code, pathlib.Path(self.errors).read_text())
            return False
        self.letters[letter] += 1
        self.until_kill -= 1
        if self.until_kill == 0:
            for _ in range(self.random.randrange(MOST_TURNS)):
                pass  # Somewhere behind the letter, not always at once.
            self.child.process.kill()
            self.letters.update(bytes([rest]) for rest in self.pipe.read())
            self.child.close()
            self.kills += 1
            self.start()
        return True

    def messages(self):
        return [f"{self.name} {number} ".ljust(40 + number * 37 % 700, ".").encode()
                for number in range(MESSAGES)]


class ResumedTest(support.Case):
    def kill_and_resume(self, *program, more=()):
        seed = int(os.environ.get("QUENOR_TEST_SEED", 0)) or random.SystemRandom().randrange(1, 2**31)
        support.say(f"seed {seed}; QUENOR_TEST_SEED={seed} draws the same")
        collector = self.collector(tls=False)
        hosts = [Host(self, random.Random(seed + i), f"host-{i}", program, collector.url("127.0.0.1"),
                      *more) for i in range(HOSTS)]
        running = {host.pipe: host for host in hosts}
        while running:
            ready, _, _ = select.select(running, [], [], support.PATIENCE_S)
            self.assertTrue(ready, f"nothing has happened for {support.PATIENCE_S} s")
            for host in [running.pop(pipe) for pipe in ready]:
                if host.runs_on():
                    running[host.pipe] = host
        self.judge(hosts, collector.accepted())

    def judge(self, hosts, arrived):
        letters = sum((host.letters for host in hosts), collections.Counter())
        kills = sum(host.kills for host in hosts)
        expected = {support.sha256(message) for host in hosts for message in host.messages()}
        lost, repeats = expected - set(arrived), sum(arrived.values()) - len(arrived)
        again = letters[b"H"] - len(expected)
        support.say(f"{len(expected)} messages, {kills} kills: {len(expected) - len(lost)} arrived, "
                    f"{len(lost)} lost, {repeats} repeats; {again} were handed over again, "
                    f"{letters[b'L']} loaded, {letters[b'F']} attempts failed")
        self.assertEqual(expected, set(arrived))
        self.assertGreater(kills, 0)
        # A second time comes what was handed over before the host had written it down, what was on disk
        # at a kill, and what failed; nothing else.
        self.assertLessEqual(repeats, again + letters[b"L"] + letters[b"F"])

    def test_c(self):
        self.kill_and_resume(os.environ["QUENOR_RESUMED_C"])

    def test_c_with_a_transport_of_the_hosts(self):
        self.kill_and_resume(os.environ["QUENOR_RESUMED_C"], more=["transport"])

    def test_cxx(self):
        self.kill_and_resume(os.environ["QUENOR_RESUMED_CXX"])

    def test_python(self):
        self.kill_and_resume(sys.executable, "-B", str(HERE / "host.py"))


if __name__ == "__main__":
    support.main()
