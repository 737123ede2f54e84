#!/usr/bin/env python3
"""The package's reporter against the collector: what arrives, what is refused, what is told."""
import gc, logging, pickle, queue, signal, threading

import support
from support import DEAD, PATIENCE_S, STATE, sha256, wait_until

import quenor


class ReporterTest(support.Case):
    def reporter(self, url, **options):
        made = quenor.Reporter(self._testMethodName, url, folder=STATE, **options)
        self.addCleanup(made.end)
        return made

    def wait_until_free(self, name):
        wait_until(lambda: f'reporter="{name}"' not in quenor.metrics(), "the reporter is gone")

    def bodies(self, collector):
        return sorted(collector.accepted())

    def test_delivers_and_says_so(self):
        collector = self.collector("--send-interval", "100", "--report-duration", "7")
        tunings = queue.SimpleQueue()

        with self.reporter(collector.url("127.0.0.1"), on_tuning=tunings.put) as reporter:
            ids = {reporter.send(b"bytes"), reporter.send(bytearray(b"array"), now=True),
                   reporter.send(memoryview(b"view"), keep=False, delay=0.001)}
            wait_until(lambda: reporter.outcome().acknowledged == 3, "all three have arrived")
            outcome = reporter.flush(PATIENCE_S)

        self.assertEqual(quenor.Outcome(3, 0, 0, 0, 0), outcome)
        self.assertTrue(outcome.all_delivered)
        self.assertEqual(3, len(ids))
        self.assertEqual(sorted(map(sha256, (b"bytes", b"array", b"view"))), self.bodies(collector))
        self.assertEqual(7000, tunings.get(timeout=PATIENCE_S).report_interval_ms)
        self.assertIn("quenor_", quenor.metrics())
        self.assertRaises(quenor.Stopped, reporter.send, b"late")

    def test_what_cannot_be_is_refused(self):
        reporter = self.reporter(DEAD)
        for error, text, options in (
                (quenor.BadOption, "name: ", {"name": ""}),
                (quenor.BadOption, "name: .*NUL", {"name": "a\0b"}),
                (quenor.BadOption, "name: a reporter .* has", {"name": self._testMethodName}),
                (quenor.BadOption, "url: ", {"url": "ftp://host/"}),
                (quenor.BadOption, "send_limit: ", {"send_limit": 0}),
                (quenor.BadOption, "send_interval_ms: less than 100", {"send_interval_ms": 99}),
                (quenor.BadOption, "send_interval_ms: ", {"send_interval_ms": 2**32}),
                (quenor.BadOption, "cache: ", {"cache": "disk"}),
                (quenor.BadOption, "durability: .*another", {"durability": "on_disk"}),
                (quenor.BadOption, "folder: ", {"folder": "/elsewhere"}),
                (quenor.BadOption, "proxy_port: ", {"proxy_port": 65536}),
                (ValueError, "exit_timeout_s: ", {"exit_timeout_s": -1}),
                (TypeError, "", {"url": None, "name": 7})):
            with self.subTest(text, **options), self.assertRaisesRegex(error, "^" + text):
                quenor.Reporter(**{"name": "other", "url": DEAD, **options})
        for error, message, options in (
                (quenor.Empty, b"", {}), (quenor.TooLarge, bytes(2**30 + 1), {}),
                (quenor.NowAndDelay, b"x", {"now": True, "delay": 1}),
                (TypeError, "text", {}), (ValueError, b"x", {"delay": float("nan")})):
            with self.subTest(error, **options), self.assertRaises(error):
                reporter.send(message, **options)
        self.assertRaisesRegex(TypeError, "create one there", pickle.dumps, reporter)
        with self.assertRaises(quenor.Full):
            for taken in range(150):
                reporter.send(b"x")
        self.assertEqual(149, taken)
        reporter.stop()
        self.assertEqual(149, reporter.flush(PATIENCE_S).kept)  # As soon as it has stopped.

    def test_callbacks_tell_of_each_message_and_their_errors_are_logged(self):
        collector = self.collector()
        told = []

        def on_update(update):
            told.append(update)
            raise LookupError("of the callback")

        with self.assertLogs("quenor", "ERROR") as logged:
            with self.reporter(collector.url("127.0.0.1"), on_update=on_update) as reporter:
                number = reporter.send(b"x")
                reporter.flush(PATIENCE_S)

        self.assertEqual([(number, quenor.State.ADMITTED, 0), (number, quenor.State.SENT, 1),
                          (number, quenor.State.ACKNOWLEDGED, 1)],
                         [(update.id, update.state, update.sends) for update in told])
        self.assertEqual(3, len(logged.records))
        self.assertIn("LookupError: of the callback", logged.output[0])

    def test_callback_hears_why_an_attempt_failed(self):
        told = []
        with self.reporter(DEAD, on_update=told.append, send_limit=1) as reporter:
            reporter.send(b"x")
            reporter.flush(PATIENCE_S)

        self.assertEqual([("none", quenor.State.ADMITTED), ("none", quenor.State.SENT),
                          ("refused", quenor.State.FAILED), ("none", quenor.State.DROPPED)],
                         [(update.reason, update.state) for update in told])

    def test_callback_may_stop_and_drop_its_reporter(self):
        has_ended = threading.Event()
        kept = {}

        def on_update(update):
            if update.state == quenor.State.FAILED:
                self.assertEqual(1, kept["reporter"].stop(PATIENCE_S).kept)
                del kept["reporter"]
                gc.collect()
                has_ended.set()

        for name in ("one", "two", "three"):
            has_ended.clear()
            kept["reporter"] = quenor.Reporter(name, DEAD, folder=STATE, on_update=on_update)
            kept["reporter"].send(b"x", now=True)
            self.assertTrue(has_ended.wait(PATIENCE_S))
            self.wait_until_free(name)  # When the callback has returned.

    def test_reporter_that_nobody_has_is_stopped(self):
        for number in range(1, 6):
            reporter = quenor.Reporter("nobody", DEAD, folder=STATE, on_update=lambda update: None)
            reporter.send(b"x")
            wait_until(lambda: reporter.outcome().kept == number, "it is on disk")
            del reporter
            self.wait_until_free("nobody")

    def test_log_lines_go_to_logging(self):
        lines = queue.SimpleQueue()
        handler = logging.Handler()
        handler.emit = lines.put
        logging.getLogger("quenor").addHandler(handler)
        self.addCleanup(logging.getLogger("quenor").removeHandler, handler)

        self.reporter(DEAD).send(b"x", now=True)

        line = lines.get(timeout=PATIENCE_S)
        while "cannot post to" not in line.getMessage():
            line = lines.get(timeout=PATIENCE_S)
        self.assertEqual(logging.WARNING, line.levelno)
        self.assertIn("http_client", line.pathname)

    def test_handler_sends_records(self):
        collector = self.collector()
        reporter = self.reporter(collector.url("127.0.0.1"))
        handler = quenor.ReportHandler(reporter, logging.ERROR)
        handler.setFormatter(logging.Formatter("%(levelname)s %(message)s"))
        logging.getLogger().addHandler(handler)
        self.addCleanup(logging.getLogger().removeHandler, handler)

        logging.getLogger("app").error("broken: %s", "\udcff")
        logging.getLogger("app").info("fine")
        logging.getLogger("quenor").error("not about itself")
        reporter.flush(PATIENCE_S)

        self.assertEqual([sha256(b"ERROR broken: \\udcff")], self.bodies(collector))
        reporter.set_url(DEAD)
        for _ in range(200):
            logging.getLogger("app").error("too many")
        self.assertGreaterEqual(handler.lost, 200 - 149)

    def test_waiting_is_interrupted_by_a_signal(self):
        reporter = self.reporter(DEAD)
        reporter.send(b"x")
        signal.signal(signal.SIGALRM, lambda *_: signal.default_int_handler(signal.SIGINT, None))
        signal.setitimer(signal.ITIMER_REAL, 0.01)
        self.assertRaises(KeyboardInterrupt, reporter.flush, 10 * PATIENCE_S)


if __name__ == "__main__":
    support.main()
