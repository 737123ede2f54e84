"""What the tests of the Python package share: the collector, and programs that use the package."""
import atexit, importlib.util, os, pathlib, shutil, subprocess, sys, tempfile

HERE = pathlib.Path(__file__).resolve().parent
_spec = importlib.util.spec_from_file_location("network_support", HERE.parent / "network/support.py")
_network = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_network)
Child, Collector, PATIENCE_S, FULL = _network.Child, _network.Collector, _network.PATIENCE_S, _network.FULL
main, sha256, wait_until = _network.main, _network.sha256, _network.wait_until
has_listener, make_certificates, say = _network.has_listener, _network.make_certificates, _network.say
sys.path.append(str(HERE.parent / "network"))  # The proxies.

DEAD = "http://127.0.0.1:1/"  # Nobody listens there, or may.
# One for the process: all of its reporters share it.
STATE = tempfile.mkdtemp(prefix="quenor-python-")
_pid = os.getpid()
atexit.register(lambda: os.getpid() == _pid and shutil.rmtree(STATE, ignore_errors=True))


class Case(_network.Case):
    def collector(self, *options):
        return super().collector(tls=False, options=options)

    def program(self, code, *arguments):
        """A Python program of its own, with the same folder for reports."""
        file = pathlib.Path(self.folder, "program.py")
        file.write_text(code)
        return self.ending(Child([sys.executable, "-B", file, STATE, *map(str, arguments)],
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE), "kill")

    def run_program(self, code, *arguments):
        """What it says, once it has ended well."""
        program = self.program(code, *arguments).process
        out, errors = (said.decode() for said in program.communicate(timeout=PATIENCE_S))
        self.assertEqual(0, program.returncode, out + errors)
        return out, errors
