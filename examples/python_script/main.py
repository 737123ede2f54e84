import sys
import quenor

url = sys.argv[1] if len(sys.argv) > 1 else "https://collector.example/reports"
with quenor.Reporter(name="usage", url=url) as reporter:
    reporter.send(b"started")  # Raises when it is not taken.
    all = reporter.stop(timeout=2.0)  # Waits no longer than that.
lost = all.rejected + all.dropped + all.out
print(f"{all.acknowledged} acknowledged, {all.kept} kept for the next start, {lost} lost")
sys.exit(0 if lost + all.kept == 0 else 1)
