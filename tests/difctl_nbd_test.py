"""difctl on the exports of NBD servers, and on sparse files: python3 difctl_nbd_test.py DIFCTL [unittest arguments]."""
import contextlib, json, os, pathlib, random, re, signal, subprocess, time, unittest
from difctl_tool import DIFCTL, ToolTest

random.seed(9)
RAW = random.randbytes(512 * 8192)
SPARSE = bytes(1 << 20) + RAW[:5000] + bytes(99 * 512 - 5000) + RAW[: 1 << 20] + bytes(1 << 20)
URI = "nbd+unix:///?socket=sock"


@contextlib.contextmanager
def serving(*args):
    """An nbdkit on the socket `sock`."""
    with subprocess.Popen(["nbdkit", "-f", "-U", "sock", *args], stderr=subprocess.DEVNULL) as server:
        try:
            while not os.path.exists("sock") and server.poll() is None:
                time.sleep(0.01)
            yield server
        finally:
            server.kill()
            os.remove("sock")


class NbdTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.write("raw", RAW), self.run_tool("protect", "raw", "img")
        self.write("sparse.dif", self.run_tool("protect", "-", "-", input=SPARSE))
        self.image = pathlib.Path("img").read_bytes()

    def refused(self, *args, says, **kwargs):
        self.run_tool(*args, status=2, says=re.compile("difctl: " + re.escape(URI) + ": " + says + "\n"), **kwargs)

    def test_every_command_on_exports(self):
        for least in "1", "512", "65536":  # the smallest piece that the server takes; the disk has 65 of the largest
            sizes = f"minimum={least}", "preferred=65536", "maximum=131072", "error-policy=error"
            server = ("--filter=multi-conn", "--filter=blocksize-policy", "--filter=log", "file", "disk", "logfile=log",
                      f"multi-conn-mode={'disable' if least == '512' else 'auto'}")
            self.write("disk", RAW + RAW[:65536])
            with self.subTest(least), serving(*server, *(f"blocksize-{size}" for size in sizes)):
                self.run_tool("protect", "--force", "-", URI, input=RAW[:-1024])
                self.assertTrue(pathlib.Path("disk").read_bytes() == self.image[:-1040] + RAW[64496:65536])
                self.run_tool("strip", "--force", "sparse.dif", URI)
                self.assertTrue(pathlib.Path("disk").read_bytes()[: len(SPARSE)] == SPARSE)
                log = pathlib.Path("log").read_text()
                self.assertEqual((log.count(" Flush id"), " Zero id" in log), (2, True))
                self.assertTrue(least != "512" or log.count(" Connect ") == 2)  # none that the server does not allow
                self.write("disk", self.image), self.write("log", b"")
                self.run_tool("relabel", "--lba", "7", URI)
                writes = re.findall(r" Write .*count=(\w+)", pathlib.Path("log").read_text())
                self.assertEqual(set(writes) == {"0x4"}, least == "1")  # the LBAs alone, or whole pieces
                self.run_tool("inject", URI, "--first-lba", "7", "--at", "20", "--lba", "77")
                self.assertIn(b"block 13, LBA 20: LBA error", self.run_tool("verify", "--lba", "7", URI, status=1))
                self.assertTrue(self.run_tool("strip", "--no-lba", URI, "-") == RAW)
                self.run_tool("relabel", "--force", "--lba", "0", "disk")
                self.run_tool("inject", URI, "--at", "30,3", "--set-guard", "1")
                self.run_tool("repair", URI, "--from", "img")
                self.assertTrue(pathlib.Path("disk").read_bytes() == self.image)

    def test_what_cannot_be_done(self):
        self.refused("verify", URI, says="cannot be reached: .*: No such file or directory")
        with serving("-r", "file", "img"):
            for command in ("relabel", "--lba", "7", URI), ("strip", "--force", "img", URI):
                self.refused(*command, says="cannot be changed: the server exports it for reading only")
        with serving("memory", "2M"):
            self.refused("strip", "img", URI, says="exists already; --force replaces it")
            for command in "protect", "strip", "fold":
                self.refused(command, "--force", URI, URI, says="is the source and the destination")
            self.refused("repair", URI, "--from", URI, says="is IMG itself, not a replica of it")
            small = f"is too small: it has {2 << 20} bytes, %d are to be written"
            self.refused("strip", "--force", "img", URI, says=small % len(RAW))
            over = f"; what was written over the first {2 << 20} bytes of .* cannot be undone"
            self.refused("strip", "--force", "-", URI, says=small % (3 << 20) + over, input=self.image)
        with serving("--filter=error", "file", "img", "error-pwrite=EIO", "error-pwrite-rate=100%"):
            says = "cannot write at offset 516: Input/output error; the blocks before block 0 of .*"
            self.refused("relabel", "--lba", "7", URI, says=says)

    def test_servers_that_end_or_stop(self):
        slow = "--filter=rate", "file", "disk", "rate=8M", "burstiness=0.1"
        for number, ends in ((signal.SIGKILL, "cannot .* at offset .*: the connection to the server is lost.*"),
                             (signal.SIGSTOP, "interrupted by SIGTERM.*")):
            for command in ("verify", URI), ("strip", "--force", "img", URI):
                self.write("disk", self.image)
                with (self.subTest(number, command=command), serving(*slow) as server,
                      subprocess.Popen([DIFCTL, *command], stderr=subprocess.PIPE) as tool):
                    time.sleep(0.3)
                    server.send_signal(number)
                    time.sleep(0.1)
                    tool.send_signal(signal.SIGTERM) if number == signal.SIGSTOP else None
                    self.assertRegex(tool.communicate(timeout=5)[1].decode(), rf"\Adifctl: (?:[^ ]*: )?{ends}\n\Z")
                self.assertEqual(tool.returncode, 2)

    def test_blocks_that_cannot_be_read(self):
        image = self.image[: 520 * 64]  # whole pieces of 512
        self.write("img", image), self.write("other", image), self.write("disk", image[:520] + bytes(520) + image[1040:])
        self.run_tool("inject", "other", "--at", "1,2", "--set-guard", "1")
        disk, flags = f"{os.getcwd()}/disk", "status=none iflag=skip_bytes,count_bytes oflag=seek_bytes conv=notrunc"
        bad = f"! [ -e {disk}.healed -o $4 -gt 600 -o $(($4+$3)) -le 600 ] && echo EIO >&2 && exit 1"
        server = (f"get_size=echo {len(image)}", f"pread={bad}; dd if={disk} skip=$4 count=$3 {flags}",
                  f"pwrite=dd of={disk} seek=$4 {flags}; touch {disk}.healed")
        with serving("eval", *server):
            lost = dict(block=1, count=1, lba=1, kind="unreadable", expected=None, found=None, tuple=None)
            done = json.loads(self.run_tool("verify", "--all", "--json", URI, status=1))
            self.assertEqual((done["faults"], done["failed"]["unreadable"], done["blocks_checked"]), ([lost], 1, 64))
            self.assertIn(b": block 1, LBA 1: cannot be read\n", self.run_tool("verify", URI, status=1))
            for command in ("verify", "--report", URI), ("strip", URI, "new"), ("info", "--all", URI):
                self.refused(*command, says="cannot read at offset 0: Input/output error")
            self.assertIn(b"guard t10 and LBAs from 0", self.run_tool("info", URI))
            self.assertIn(b"block 60, LBA 60: ", self.run_tool("show", URI, "--at", "60"))
            says = re.compile("difctl: other: block 1, LBA 1: guard error, .*\n")
            self.assertIn(b" 1, failing in both and left 1,",
                          self.run_tool("repair", "other", "--from", URI, status=1, says=says))
            self.run_tool("repair", URI, "--from", "img")
        self.assertTrue(pathlib.Path("disk").read_bytes() == image)
        os.remove("disk.healed"), self.write("disk", bytes(1024) + image[1024:])
        sizes = "minimum=512", "preferred=4096", "maximum=131072", "error-policy=error"
        with serving("--filter=blocksize-policy", "eval", *server, *(f"blocksize-{size}" for size in sizes)):
            self.assertIn(b" taken from img 2,", self.run_tool("repair", URI, "--from", "img"))
        self.assertTrue(pathlib.Path("disk").read_bytes() == image)
        with serving("--filter=error", "file", "img", "error-pread=EIO", "error-pread-rate=100%"):
            self.refused("verify", URI, says="cannot read at offset .*: Input/output error")

    def test_files_keep_holes(self):
        self.run_tool("strip", "sparse.dif", "new")
        self.assertTrue(pathlib.Path("new").read_bytes() == SPARSE)
        self.assertLess(os.stat("new").st_blocks * 512, 5 << 18)


if __name__ == "__main__":
    unittest.main()
