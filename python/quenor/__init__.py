"""Hands reports to a collection server and says what became of them.

    import quenor

    with quenor.Reporter("usage", "https://collector.example/reports") as reporter:
        reporter.send(b"started")
        print(reporter.flush(timeout=10))

What the library has to say goes to the logger "quenor". All of it is in docs/guide/python.md.
"""
from quenor._errors import (BadArgument, BadOption, Empty, Error, Forked, Full, NoMemory,
                            NowAndDelay, Stopped, TooLarge)
from quenor._handler import ReportHandler
from quenor._library import c as _c, metrics, text as _text
from quenor._network import (Spent, network_changed, reset_http, set_http, set_thrift, spent,
                             watch_network)
from quenor._reporter import Outcome, Reporter, State, Tuning, Update

__all__ = ["BadArgument", "BadOption", "Empty", "Error", "Forked", "Full", "NoMemory",
           "NowAndDelay", "Outcome", "ReportHandler", "Reporter", "Spent", "State",
           "Stopped", "TooLarge", "Tuning", "Update", "metrics", "network_changed", "reset_http",
           "set_http", "set_thrift", "spent", "watch_network"]
__version__: str = _text(_c.quenor_version())
