#!/usr/bin/env python3
"""What the package does when a process forks, starts others and ends."""
import support
from support import DEAD, FULL, sha256

RUNS = 50 if FULL else 5
HEAD = """
import multiprocessing, os, sys, threading, time, quenor
folder, url, *rest = sys.argv[1:]
def make(name="app", url=url, **options):
    return quenor.Reporter(name, url, folder=folder, **options)
def in_child(act):
    pid = os.fork()
    if pid == 0:
        code = 1
        try:
            act()
            code = 0
        finally:
            os._exit(code)
    assert os.waitpid(pid, 0)[1] == 0
"""
FORK = HEAD + """
def act():
    for use in (lambda: parents.send(b"x"), lambda: parents.flush(1), parents.outcome, parents.stop,
                lambda: parents.set_url(url), lambda: parents.report_interval_ms):
        try:
            use()
        except quenor.Forked as error:
            assert "create one in this process" in str(error)
        else:
            assert False
    own = parents.for_this_process()
    own.send(b"child")
    assert own.stop(100).all_delivered
with make() as parents:
    assert parents.for_this_process() is parents
    parents.send(b"parent before")
    for _ in range(3):
        in_child(act)
    parents.send(b"parent after")
    assert parents.flush(100).acknowledged == 2
"""
# The children end without stopping anything; what they logged is safe all the same.
START = """
import logging, multiprocessing, os, sys, quenor
def work(folder, url, number):
    handler = quenor.ReportHandler(quenor.Reporter("app", url, folder=folder))
    handler.setFormatter(logging.Formatter("%(message)s"))
    logging.getLogger().addHandler(handler)
    logging.getLogger().error("child %d", number)
if __name__ == "__main__":
    folder, url, way = sys.argv[1:]
    start = multiprocessing.get_context(way)
    parents = quenor.Reporter("parent", url, folder=folder)
    children = [start.Process(target=work, args=(folder, url, number)) for number in range(4)]
    for child in children: child.start()
    for child in children: child.join()
    assert [child.exitcode for child in children] == [0] * 4
    parents.stop()
    with quenor.Reporter("app", url, folder=folder) as rest:
        assert rest.flush(100).kept == 0
"""
# As a server does that loads the application first and forks its workers then.
PRE_FORK = HEAD + """
import logging
handler = quenor.ReportHandler(make(), logging.WARNING)
handler.setFormatter(logging.Formatter("%(message)s"))
logging.getLogger().addHandler(handler)
def act():
    logging.getLogger().warning("worker %d", os.getpid())
    assert handler.reporter.stop(100).all_delivered
    print(os.getpid())
    sys.stdout.flush()
for _ in range(4):
    in_child(act)
"""
# A fork that waits for a thread that logs, and holds the interpreter's lock: the first reporter reads
# the configuration, and a fork waits for the end of that.
LOGGING = HEAD + """
from quenor import _library, _process
is_logging = threading.Event()
def log_slowly(*line):
    is_logging.set()
    time.sleep(0.1)  # Without the interpreter's lock, and then it needs it.
_process._sink = _library.ON_LOG(log_slowly)
os.environ["QUENOR_REPORT_CACHE_OPTION"] = "no number"
thread = threading.Thread(target=make)
thread.start()
is_logging.wait()
in_child(lambda: None)
thread.join()
"""
# It ends in the midst of callbacks, log lines and requests.
END = HEAD + """
import itertools
told, is_reached = itertools.count(), threading.Event()
def on_update(update):
    if next(told) == int(rest[0]):
        is_reached.set()
    time.sleep(float(rest[1]))
reporters = [make(f"end-{rest[0]}-{i}", on_update=on_update) for i in range(3)]
for i in range(30):
    reporters[i % 3].send(b"x", now=True)
is_reached.wait()
if int(rest[0]) % 2:
    del reporters
"""


class ProcessTest(support.Case):
    def messages(self, collector):
        return set(collector.accepted())

    def test_forked_child_makes_its_own(self):
        collector = self.collector()
        self.run_program(FORK, collector.url("127.0.0.1"))
        self.assertEqual({sha256(text) for text in (b"parent before", b"child", b"parent after")},
                         self.messages(collector))

    def test_multiprocessing(self):
        for way in ("fork", "forkserver", "spawn"):
            with self.subTest(way):
                collector = self.ending(support.Collector(self.folder, tls=False, name=way), "end")
                self.run_program(START, collector.start().url("127.0.0.1"), way)
                self.assertEqual({sha256(b"child %d" % number) for number in range(4)},
                                 self.messages(collector))

    def test_pre_fork_server(self):
        collector = self.collector()
        workers, _ = self.run_program(PRE_FORK, collector.url("127.0.0.1"))
        self.assertEqual({sha256(b"worker " + pid) for pid in workers.encode().split()},
                         self.messages(collector))

    def test_fork_while_the_library_logs(self):
        self.run_program(LOGGING, DEAD)

    def test_process_ends_when_it_wants_to(self):
        collector = self.collector("--misbehave", "all: hang=0")
        for blocks_s in (0, 0.2):
            for run in range(RUNS):
                _, errors = self.run_program(END, collector.url("127.0.0.1"), run * 50 // RUNS, blocks_s)
                self.assertNotIn("fatal", errors)


if __name__ == "__main__":
    support.main()
