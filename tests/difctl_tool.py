"""What the tests of difctl share: the tool that is their first argument, run in a directory of its own."""
import contextlib, os, pathlib, re, select, signal, subprocess, sys, tempfile, unittest

DIFCTL = pathlib.Path(sys.argv.pop(1)).resolve()
ASAN, TSAN = (name in DIFCTL.read_bytes() for name in (b"__asan_init", b"__tsan_init"))
SANITIZED = ASAN or TSAN
os.environ["TSAN_OPTIONS"] = os.environ.get("TSAN_OPTIONS", "") + " atexit_sleep_ms=0"  # of every single run
for interrupt in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
    signal.signal(interrupt, signal.SIG_DFL)  # what a shell starts with & ignores some, and so would difctl


def shown(end, until="(?!)"):
    """What appears on a terminal, up to a text that matches or to the program's end."""
    text = ""
    while not re.search(until, text):
        if not select.select([end], [], [], 20)[0]:
            raise AssertionError(f"no {until} in {text!r}")
        try:
            text += os.read(end, 4096).decode()
        except OSError:
            break
    return text


class ToolTest(unittest.TestCase):
    def setUp(self):
        self.enterContext(contextlib.chdir(self.enterContext(tempfile.TemporaryDirectory())))

    def write(self, name, content):
        pathlib.Path(os.fsdecode(name)).write_bytes(content)
        return name

    def run_tool(self, *args, status=0, says="", under=(), **kwargs):
        """What difctl writes; it must end with `status` and say the lines `says`, or what matches that pattern."""
        kwargs = {"stdout": subprocess.PIPE, **({} if "stdin" in kwargs else {"input": b""}), **kwargs}
        done = subprocess.run([*under, DIFCTL, *args], stderr=subprocess.PIPE, timeout=60, **kwargs)
        if not isinstance(says, re.Pattern):
            says = re.compile(re.escape("".join("difctl: " + line for line in says)))
        self.assertRegex(done.stderr.decode(), rf"(?s)^{says.pattern}\Z")
        self.assertEqual(done.returncode, status, args)
        return done.stdout
