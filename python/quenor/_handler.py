"""Log records as reports."""
from __future__ import annotations

import logging

from quenor._errors import Full
from quenor._reporter import Reporter


def _is_not_ours(record: logging.LogRecord) -> bool:
    return record.name != "quenor" and not record.name.startswith("quenor.")


class ReportHandler(logging.Handler):
    """Sends each record, formatted, as a message of its own.

    Borrows the reporter; in a forked child it makes one with the same options for itself. A
    reporter sends some ten messages a second and has 149 out at most: records beyond that are
    counted in `lost`, so give it a level. Leaves out the records of the logger "quenor", which
    may be about what it sends.
    """

    def __init__(self, reporter: Reporter, level: int | str = logging.NOTSET, *,
                 keep: bool = True) -> None:
        super().__init__(level)
        self.reporter = reporter
        self.lost = 0
        self._keep = keep
        self.setFormatter(logging.Formatter("%(asctime)s %(levelname)s %(name)s: %(message)s"))
        self.addFilter(_is_not_ours)  # A filter comes before the handler's lock.

    def emit(self, record: logging.LogRecord) -> None:
        try:
            self.reporter = self.reporter.for_this_process()
            self.reporter.send(self.format(record).encode("utf-8", "backslashreplace"),
                               keep=self._keep)
        except Full:
            self.lost += 1
        except Exception:
            self.handleError(record)
