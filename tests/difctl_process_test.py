"""How a difctl process ends: python3 difctl_process_test.py PATH_TO_DIFCTL [unittest arguments]."""
import contextlib, fcntl, os, pathlib, pty, re, resource, select, shutil, signal, socket, subprocess, sys, tempfile
import termios, threading, time, unittest

DIFCTL = pathlib.Path(sys.argv.pop(1)).resolve()
ASAN, TSAN = (name in DIFCTL.read_bytes() for name in (b"__asan_init", b"__tsan_init"))
os.environ["TSAN_OPTIONS"] = os.environ.get("TSAN_OPTIONS", "") + " atexit_sleep_ms=0"  # of every single run
for number in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
    signal.signal(number, signal.SIG_DFL)  # what a shell starts with & ignores some, and so would difctl


def wait_for(condition):
    while not condition():
        time.sleep(0.01)


def shown(terminal, until):
    text = ""
    while not re.search(until, text):
        assert select.select([terminal], [], [], 20)[0], f"no {until!r} in {text!r}"
        text += os.read(terminal, 4096).decode()
    return text


class DifctlProcessTest(unittest.TestCase):
    def setUp(self):
        self.enterContext(contextlib.chdir(self.enterContext(tempfile.TemporaryDirectory())))

    def run_tool(self, *args, status, says="", stdout=subprocess.PIPE, **kwargs):
        done = subprocess.run([DIFCTL, *args], stdout=stdout, stderr=subprocess.PIPE, timeout=60, **kwargs)
        self.assertRegex(done.stderr.decode(), rf"^{says}\Z")
        self.assertEqual(done.returncode, status, args)
        return done.stdout

    @unittest.skipIf(TSAN, "it keeps signal handlers waiting for system calls to end")
    def test_signals_while_nobody_reads_standard_error(self):
        pathlib.Path("img").write_bytes(b"\1" * 520 * 6000)  # as many faults to tell
        for ending in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
            unread, stuck = os.pipe()
            tool = subprocess.Popen([DIFCTL, "strip", "--all", "img", "new"], stderr=stuck)
            self.addCleanup(tool.wait), self.addCleanup(tool.kill)
            wait_for(lambda: int.from_bytes(fcntl.ioctl(unread, termios.FIONREAD, bytes(4)), sys.byteorder) > 60000)
            tool.send_signal(ending)
            self.assertEqual(tool.wait(timeout=3), 2)
            self.assertEqual(os.listdir("."), ["img"])

    def test_output_that_fails(self):
        def serve():
            for _ in range(2):
                with server.accept()[0] as client:
                    client.recv(4096), client.sendall(b"text\n\0000\n")

        unread, gone = os.pipe()
        os.close(unread)
        with socket.socket(socket.AF_UNIX) as server:
            server.bind("sock"), server.listen()
            threading.Thread(target=serve, daemon=True).start()
            for stdout, why in (os.open("/dev/full", os.O_WRONLY), "No space left on device"), (gone, "Broken pipe"):
                for args in ["--version"], ["protect", "--help"], ["shell"], ["attach", "sock", "metrics"]:
                    self.run_tool(*args, input=b"help\n", stdout=stdout, status=2,
                                  says=f"difctl: standard output: cannot write the results: {why}\n")

    def test_lines_of_a_script(self):
        on, line = b"dif switch status: on\n", b"dif showdifswitch"
        for script, status, says in ((line, 0, on), (line + b"\n \texit \t\nhelp\n", 0, on),
                                     (b"exi\0t\n" + line, 2, b"Error: the line holds a NUL byte.\n" + on)):
            self.assertEqual(self.run_tool("shell", input=script, status=status), says)
        self.run_tool("shell", stdin=os.open(".", 0), status=2, says="difctl: standard input: cannot read: Is a .*\n")

    def test_interrupts_at_a_terminal(self):
        end, terminal = pty.openpty()
        before, streams = termios.tcgetattr(end), dict.fromkeys(("stdin", "stdout", "stderr"), terminal)
        own = lambda: (os.setsid(), fcntl.ioctl(0, termios.TIOCSCTTY, 1))  # its keys make signals
        cooked = lambda: termios.tcgetattr(end)[3] & termios.ICANON
        for ending in signal.SIGTERM, signal.SIGHUP, signal.SIGINT:
            tool = subprocess.Popen([DIFCTL, "shell"], **streams, preexec_fn=own)
            self.addCleanup(tool.wait), self.addCleanup(tool.kill)
            for typed, answer in (b"", ""), (b"wrong\3", "^C"), (b"\3", "^C"), (b"dif showdifswitch\r", "status: on"):
                os.write(end, typed)
                self.assertIn(answer, shown(end, "dif> $"))
                wait_for(lambda: not cooked())
                typed or tool.send_signal(signal.SIGINT)  # which ends nothing here
            if ending == signal.SIGINT:  # but the key does while a command runs
                os.write(end, b"selftest 1000000000 4096\r")
                wait_for(cooked)
            os.write(end, b"\3") if ending == signal.SIGINT else tool.send_signal(ending)
            self.assertIn(f"difctl: interrupted by {ending.name}\r\n", shown(end, "interrupted by .*\n"))
            self.assertEqual(tool.wait(timeout=20), 2)
            self.assertEqual(termios.tcgetattr(end), before)

    @unittest.skipIf(ASAN or TSAN or os.getuid() != 0, "sanitizers need memory, another user root")
    def test_shortages(self):
        raw = os.urandom(4 << 20)
        limit = lambda name, most: {"preexec_fn": lambda: resource.setrlimit(name, (most, most))}
        with tempfile.TemporaryDirectory() as folder:  # a copy: another user may not enter the home of the build
            for built in DIFCTL, *DIFCTL.parents[1].glob("lib/lib*.so.1"):
                os.chmod(shutil.copy(built, folder), 0o755)
            os.chmod(folder, 0o755)
            alone = {"args": [f"{folder}/difctl", "protect", "-", "-"], "input": raw, "user": 300000 + os.getpid(),
                     "env": os.environ | {"LD_LIBRARY_PATH": folder}}
            none, one, many = (subprocess.run(**alone, capture_output=True, **limit(resource.RLIMIT_NPROC, threads))
                               for threads in (1, 2, 1000))
        self.assertIn(b"difctl: the thread that waits for interrupts cannot be had", none.stderr)
        self.assertEqual((none.returncode, one.stderr, one.stdout == many.stdout != none.stdout), (2, b"", True))
        pathlib.Path("raw").write_bytes(raw)
        command, said = {"args": [DIFCTL, "protect", "raw", "new"], "capture_output": True}, set()
        for megabytes in range(8, 48):
            done = subprocess.run(**command, **limit(resource.RLIMIT_AS, megabytes << 20))
            said.add(done.stderr)
            self.assertEqual(len(os.listdir(".")), 1 if done.returncode else 2)
            pathlib.Path("new").unlink(missing_ok=True)
        self.assertLess({b"difctl: memory cannot be had; nothing new is left at new\n", b""}, said)


if __name__ == "__main__":
    unittest.main()
