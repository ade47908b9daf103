"""Drives the difctl command on real images: python3 difctl_test.py PATH_TO_DIFCTL [unittest arguments]."""
import contextlib, itertools, json, os, pathlib, random, re, resource, signal, subprocess, sys, tempfile, time, unittest

DIFCTL = os.path.abspath(sys.argv.pop(1))
os.environ["TSAN_OPTIONS"] = os.environ.get("TSAN_OPTIONS", "") + " atexit_sleep_ms=0"  # of every single run
SANITIZED = any(name in pathlib.Path(DIFCTL).read_bytes() for name in (b"__asan_init", b"__tsan_init"))
DATA_SIZE = {520: 512, 4160: 4096}
TUPLE_VERSION = {"t10": 0x13, "crc32c": 0x29}
random.seed(20)
RAW = random.randbytes(5 << 20)  # several requests, the last one full
ODD_RAW = RAW[: (3 << 20) + 7 * 4096]  # the last request short


def crc16_t10(data):
    crc = 0
    for bit in (byte >> i & 1 for byte in data for i in range(7, -1, -1)):
        crc = crc << 1 & 0xFFFF ^ (0x8BB7 if crc >> 15 ^ bit else 0)
    return crc


def crc32c(data):
    crc = 0xFFFFFFFF
    for bit in (byte >> i & 1 for byte in data for i in range(8)):
        crc = crc >> 1 ^ (0x82F63B78 if crc & 1 ^ bit else 0)
    return crc ^ 0xFFFFFFFF


def expected_image(raw, block, crc, lba):
    """The protected image, computed bit by bit; `lba` None for none."""
    size, image = DATA_SIZE[block], b""
    for index, at in enumerate(range(0, len(raw), size)):
        data = raw[at : at + size]
        guard = crc16_t10(data).to_bytes(2, "big") if crc == "t10" else (crc32c(data) & 0xFFFF).to_bytes(2, "little")
        tail = bytes([0] * 5) if lba is None else b"\x02" + (lba + index & 0xFFFFFFFF).to_bytes(4, "big")
        image += data + guard + bytes([TUPLE_VERSION[crc]]) + tail + bytes(block - size - 8)
    return image


class DifctlTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(directory.name)

    def run_tool(self, *args, status=0, stdin=b"", **kwargs):
        done = subprocess.run([DIFCTL, *args], input=stdin, stderr=subprocess.PIPE, timeout=120,
                              **{"stdout": subprocess.PIPE, **kwargs})
        self.assertEqual(done.returncode, status, (args, done.stderr))
        return done

    def write(self, name, content):
        pathlib.Path(name).write_bytes(content)
        return name

    def refused(self, *args, says, **kwargs):
        """Runs a command that must not be done: status 2, one line that says why, the directory as it was."""
        before = sorted(os.listdir("."))
        line = self.run_tool(*args, status=2, **kwargs).stderr.decode()
        self.assertEqual((line[:8], line.count("\n"), line[-1:]), ("difctl: ", 1, "\n"), line)
        for part in says:
            self.assertIn(part, line)
        self.assertEqual(sorted(os.listdir(".")), before)

    def verify(self, *args, status=1, **kwargs):
        result = json.loads(self.run_tool("verify", "--json", *args, status=status, **kwargs).stdout)
        result["failed_blocks"] = [(item["block"], item["lba"], item["kind"]) for item in result["failed_blocks"]]
        return result

    def test_tuples_are_the_computed_bytes(self):
        for block, crc, lba in (520, "t10", 0), (520, "crc32c", 0x1FFFFFFFE), (4160, "t10", 77), (4160, "crc32c", None):
            raw = RAW[: 5 * DATA_SIZE[block]]
            place = ["--no-lba"] if lba is None else ["--lba", str(lba)]
            command = [DIFCTL, "protect", "--block", str(block), "--crc", crc, *place, "-", "-"]
            with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0) as tool:
                for at in range(0, len(raw), 700):  # reads that end inside blocks
                    tool.stdin.write(raw[at : at + 700])
                    time.sleep(0.005)
                tool.stdin.close()
                image = tool.stdout.read()
            self.assertEqual(image, expected_image(raw, block, crc, lba), (block, crc, lba))

    def test_round_trip(self):
        for block, crc, raw in itertools.product(DATA_SIZE, TUPLE_VERSION, (RAW, ODD_RAW)):
            options = ["--block", str(block), "--crc", crc, "--lba", "5000000000"]
            self.run_tool("protect", "--force", *options, self.write("raw", raw), "img")
            totals = self.verify(*options, "img", status=0)
            self.assertEqual((totals["blocks_checked"], totals["failed"]["total"], totals["complete"]),
                             (len(raw) // DATA_SIZE[block], 0, True))
            self.run_tool("strip", "--force", *options, "img", "back")
            self.assertEqual(pathlib.Path("back").read_bytes(), raw)
            piped = self.run_tool("protect", *options, "-", "-", stdin=raw).stdout
            self.assertEqual(piped, pathlib.Path("img").read_bytes())
            self.assertEqual(self.run_tool("strip", *options, "-", "-", stdin=piped).stdout, raw)
        old = os.umask(0o027)
        self.run_tool("protect", "raw", "mode")
        os.umask(old)
        self.assertEqual(os.stat("mode").st_mode & 0o777, 0o640)

    def damaged(self):
        """An image from LBA 100 with five faults in three requests, and what they are."""
        self.run_tool("protect", "--lba", "100", self.write("raw", ODD_RAW), "img")
        image = bytearray(pathlib.Path("img").read_bytes())
        image[5 * 520 + 515] = 0  # no valid LBA, and no fault
        image[7 * 520 + 300] ^= 0x10  # a bit of data
        image[2047 * 520 + 512] ^= 1  # the guard in the last block of the first request
        image[2048 * 520 + 519] ^= 1  # the LBA in the first block of the second
        image[2050 * 520 + 514] = 0x1F  # a version that is none
        image[6199 * 520 + 514] = 0x29  # a version whose guard this is not, in the last block
        image[4100 * 520 : 4101 * 520] = bytes(512) + b"\0\0\x13\x03" + (4200).to_bytes(4, "big")  # BST, and no fault
        self.write("img", image)
        return [(7, 107, "guard"), (2047, 2147, "guard"), (2048, 2148, "LBA"),
                (2050, 2150, "version"), (6199, 6299, "guard")]

    def test_faults_are_named(self):
        faults = self.damaged()
        result = self.verify("--all", "--report", "--lba", "100", "img")
        self.assertEqual(result["failed_blocks"], faults)
        self.assertEqual(result["failed"], {"total": 5, "guard": 3, "LBA": 1, "version": 1})
        self.assertEqual((result["blocks_checked"], result["complete"]), (6200, True))
        self.assertEqual(result["report"], {"have_bst": True, "all_lba_valid": False, "all_zero": False,
                                            "not_t10": True, "unknown_version": True,
                                            "version_zero": False})
        for extra in ([], ["--report"]):
            result = self.verify(*extra, "--lba", "100", "img")
            self.assertEqual((result["failed_blocks"], result["blocks_checked"]), (faults[:1], 8))
        self.assertEqual(result["report"]["unknown_version"], True)  # of the image, beyond the first fault
        self.assertEqual(self.verify("--all", "--no-lba", "img")["failed"]["LBA"], 0)

        text = self.run_tool("verify", "--all", "--lba", "100", "img", status=1).stdout.decode().splitlines()
        self.assertIn("img: block 2048, LBA 2148: LBA error", text[2])
        self.assertEqual(text[-1], "img: blocks checked 6200, failed 5 (guard 3, LBA 1, version 1)")
        # The first fault of an image need not be in its first request.
        last = self.verify("--lba", "2151", "-", stdin=pathlib.Path("img").read_bytes()[2051 * 520 :])
        self.assertEqual((last["failed_blocks"], last["blocks_checked"]), ([(4148, 6299, "guard")], 4149))

    def test_required_guard_and_blocks_without_lba(self):
        self.run_tool("protect", "--no-lba", self.write("raw", RAW[: 3 * 512]), "img")
        mixed = pathlib.Path("img").read_bytes() + expected_image(RAW[:512], 520, "crc32c", None) + bytes(520)
        self.assertEqual(self.verify("--lba", "9", "-", stdin=mixed, status=0)["blocks_checked"], 5)
        by_crc = {crc: self.verify("--all", "--crc", crc, "-", stdin=mixed)["failed_blocks"] for crc in TUPLE_VERSION}
        self.assertEqual(by_crc["t10"], [(i, i, "version") for i in (3, 4)])
        self.assertEqual(by_crc["crc32c"], [(i, i, "version") for i in (0, 1, 2, 4)])

    def test_strip_of_a_damaged_image_leaves_nothing(self):
        self.damaged()
        before = sorted(os.listdir("."))
        line = self.run_tool("strip", "--lba", "100", "img", "back", status=1).stderr.decode()
        self.assertIn("block 7, LBA 107: guard error", line)
        every = self.run_tool("strip", "--all", "--lba", "100", "img", "back", status=1).stderr.decode().splitlines()
        self.assertEqual((len(every), sorted(os.listdir("."))), (6, before))
        # Two whole requests of good blocks go ahead of the faults, and out.
        image = expected_image(RAW[:512], 520, "t10", 100) + bytes(4095 * 520) + pathlib.Path("img").read_bytes()
        piped = self.run_tool("strip", "--lba", "100", "-", "-", stdin=image, status=1)
        self.assertEqual(piped.stdout, RAW[:512] + bytes(4095 * 512))
        self.assertIn("cannot be undone", piped.stderr.decode())

    def test_refusals(self):
        for name, content in ("raw", RAW[:4096]), ("odd", RAW[:1000]), ("empty", b""), ("taken", b"old"):
            self.write(name, content)
        os.mkdir("folder")
        full = open("/dev/full", "wb")
        self.addCleanup(full.close)
        for args, says, kwargs in (
            (["protect", "odd", "new"], ["odd", "1000", "512"], {}),
            (["verify", "odd"], ["odd", "480 bytes", "520"], {}),
            (["verify", "-"], ["standard input", "480 bytes"], {"stdin": RAW[:1000]}),
            (["protect", "-", "new"], ["standard input", "488 bytes"], {"stdin": RAW[:1000]}),
            (["protect", "empty", "new"], ["empty"], {}),
            (["verify", "-"], ["standard input", "empty"], {}),
            (["protect", "missing", "new"], ["missing", "No such file"], {}),
            (["protect", "folder", "new"], ["folder", "directory"], {}),
            (["protect", "raw", "folder", "--force"], ["folder", "regular"], {}),
            (["protect", "raw", "/dev/null", "--force"], ["/dev/null", "regular"], {}),
            (["protect", "raw", "missing/new"], ["missing", "No such file"], {}),
            (["protect", "raw", "taken"], ["taken", "--force"], {}),
            (["protect", "raw", "-"], ["standard output", "offset 0", "No space"], {"stdout": full}),
            (["verify", "-"], ["standard output", "No space"], {"stdin": bytes(520), "stdout": full}),
            (["protect", "--block", "512", "raw", "new"], ["--block", "512"], {}),
            (["protect", "--lba", "-1", "raw", "new"], ["--lba", "-1"], {}),
            (["protect", "--lba", "18446744073709551616", "raw", "new"], ["--lba", "18446744073709551616"], {}),
            (["protect", "--crc", "crc64", "raw", "new"], ["--crc", "crc64"], {}),
            (["protect", "raw"], ["DST"], {}),
            ([], ["a command", "required"], {}),
            (["verfy", "raw"], ["verfy"], {}),
            (["protect", "-", "new"], ["new", "File too large", "offset 1048576"], {"stdin": RAW, "preexec_fn":
                lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, 1 << 20))}),
        ):
            with self.subTest(args=args):
                self.refused(*args, says=says, **kwargs)
        self.assertEqual(pathlib.Path("taken").read_bytes(), b"old")
        os.chmod("raw", 0), os.chmod(".", 0o755)
        user = {"user": 65534} if os.getuid() == 0 else {}
        self.refused("verify", "raw", says=["raw", "Permission denied"], **user)

    @contextlib.contextmanager
    def waiting_tool(self, *args, **kwargs):
        """A command that has read almost 2 MiB of its standard input and waits for more."""
        with subprocess.Popen([DIFCTL, *args], stdin=subprocess.PIPE, stderr=subprocess.PIPE, **kwargs) as tool:
            tool.stdin.write(RAW[: 2 << 20])
            tool.stdin.flush()
            yield tool

    def test_interrupts_and_closed_pipes(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.waiting_tool("protect", "-", "new") as tool:
                self.assertEqual(len(os.listdir(".")), 1)  # the unfinished file
                tool.send_signal(number)
                self.assertEqual(tool.wait(timeout=20), 2)
                self.assertIn(f"difctl: interrupted by {number.name}; ", tool.stderr.read().decode())
            self.assertEqual(os.listdir("."), [])
        # The reader of the output goes away while the tool waits for input: the failing write ends it all the same.
        with self.waiting_tool("protect", "-", "-", stdout=subprocess.PIPE) as tool:
            tool.stdout.close()
            self.assertEqual(tool.wait(timeout=20), 2)
            self.assertRegex(tool.stderr.read().decode(), "^difctl: standard output: .*Broken pipe")

    def test_files_that_change_meanwhile(self):
        with self.waiting_tool("protect", "-", "new") as tool:
            self.write("new", b"of another")
            tool.stdin.close()
            self.assertEqual(tool.wait(timeout=20), 2)
            self.assertIn("new: has appeared", tool.stderr.read().decode())
        self.assertEqual((pathlib.Path("new").read_bytes(), os.listdir(".")), (b"of another", ["new"]))
        os.truncate(self.write("raw", b""), 256 << 20)
        with subprocess.Popen([DIFCTL, "protect", "raw", "-"], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as tool:
            tool.stdout.read(1)  # it has begun, and the full pipe holds it
            os.truncate("raw", 128 << 20)
            tool.stdout.read()
            self.assertEqual(tool.wait(timeout=20), 2)
            self.assertIn("raw: changed its length", tool.stderr.read().decode())

    def test_memory_stays_below_64_mib(self):
        if SANITIZED:
            self.skipTest("a sanitizer needs memory of its own")
        for args, status in (["protect", "-", "img"], 0), (["verify", "--all", "--no-lba", "-"], 1):
            with subprocess.Popen([DIFCTL, *args], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL) as tool:
                for _ in range(65):
                    tool.stdin.write(RAW[: 520 << 13])
                peak = int(re.search(r"VmHWM:\s*(\d+)", pathlib.Path(f"/proc/{tool.pid}/status").read_text())[1])
                tool.stdin.close()
                self.assertEqual(tool.wait(timeout=60), status)
            self.assertLess(peak, 64 << 10, args)


if __name__ == "__main__":
    unittest.main()
