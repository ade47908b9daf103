"""How a difctl process ends: python3 difctl_process_test.py PATH_TO_DIFCTL [unittest arguments]."""
import fcntl, os, pathlib, pty, re, resource, shutil, signal, socket, subprocess, sys, tempfile, termios, threading, time, unittest
from difctl_tool import DIFCTL, SANITIZED, TSAN, ToolTest, shown


def wait_for(condition):
    while not condition():
        time.sleep(0.01)


class DifctlProcessTest(ToolTest):
    @unittest.skipIf(TSAN, "it keeps signal handlers waiting for system calls to end")
    def test_signals_while_nobody_reads_standard_error(self):
        pathlib.Path("img").write_bytes((b"\1" * 520 + bytes(520)) * 3000)  # as many faults to tell
        for ending in signal.SIGINT, signal.SIGTERM, signal.SIGHUP:
            unread, stuck = os.pipe()
            tool = subprocess.Popen([DIFCTL, "strip", "--all", "img", "new"], stderr=stuck,  # under one who blocks alarms
                                    preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGALRM]))
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
                                  says=[f"standard output: cannot write the results: {why}\n"])
        pathlib.Path("raw").write_bytes(bytes(2 << 20))
        self.run_tool("protect", "raw", "new", status=2, says=["new: cannot write at offset 1048576: File too large\n"],
                      preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, 1 << 20)))

    def test_lines_of_a_script(self):
        on, line = b"dif switch status: on\n", b"dif showdifswitch"
        for script, status, says in ((line, 0, on), (line + b"\n \texit \t\nhelp\n", 0, on),
                                     (b"exi\0t\n" + line, 2, b"Error: the line holds a NUL byte.\n" + on)):
            self.assertEqual(self.run_tool("shell", input=script, status=status), says)
        self.run_tool("shell", stdin=os.open(".", 0), status=2, says=["standard input: cannot read: Is a directory\n"])

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

    @unittest.skipIf(SANITIZED or os.getuid() != 0, "sanitizers need memory, another user root")
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
        for megabytes in range(8, 64):
            done = subprocess.run(**command, **limit(resource.RLIMIT_AS, megabytes << 20))
            said.add(done.stderr)
            self.assertEqual(len(os.listdir(".")), 1 if done.returncode else 2)
            pathlib.Path("new").unlink(missing_ok=True)
        self.assertLess({b"difctl: memory cannot be had; nothing new is left at new\n", b""}, said)


if __name__ == "__main__":
    unittest.main()
