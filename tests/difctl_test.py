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


def edited(image, *edits):
    """`image` with bytes replaced: (offset, content) pairs."""
    for at, content in edits:
        image = image[:at] + content + image[at + len(content) :]
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
        self.run_tool("protect", "--force", "--lba", "100", self.write("raw", ODD_RAW), "img")
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
        for name, content in ("raw", RAW[:4096]), ("odd", RAW[:1000]), ("empty", b""), ("taken", b"old"), \
                ("good", bytes(8 * 520)), ("nine", bytes(9 * 520)), ("big", bytes(6200 * 520)):
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
            (["protect", "--entry", "1000", "raw", "new"], ["--entry 1000", "520"], {}),
            (["verify", "--entry", "0", "--block", "4160", "good"], ["--entry 0", "4160"], {}),
            (["inject", "--force", "--at", "0", "--bst", "odd"], ["odd", "480 bytes", "520"], {}),
            (["inject", "--at", "0", "--bst", "-"], ["standard input", "in place"], {}),
            (["inject", "--at", "0", "good"], ["--version", "--crc", "--lba", "--bst"], {}),
            (["inject", "--at", "6,3", "--bst", "good"], ["--at 6,3", "good", "8 blocks"], {}),
            (["inject", "--first-lba", "9", "--at", "8", "--bst", "good"], ["--at 8,1", "LBA 9"], {}),
            (["inject", "--at", "0", "--version", "256", "good"], ["--version", "256", "255"], {}),
            (["inject", "--at", "0", "--crc", "0x10000", "good"], ["--crc", "0x10000", "65535"], {}),
            (["relabel", "good"], ["--lba", "--crc", "--version-only"], {}),
            (["relabel", "--lba", "1", "--bitmap", "0,5-3", "good"], ["--bitmap", "'5-3'"], {}),
            (["relabel", "--lba", "1", "--bitmap", "2-8,1", "good"], ["good", "block 8", "8 blocks"], {}),
            (["relabel", "--force", "--lba", "1", "big"], ["offset 2129920", "before block 4096 of 6200"],
             {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (2129920, 2129920))}),
            (["fold", "nine", "new"], ["nine", "1 blocks", "multiple of 8"], {}),
            (["fold", "-", "new"], ["standard input", "1 blocks"], {"stdin": bytes(9 * 520)}),
            (["protect", "-", "new"], ["new", "File too large", "offset 1048576"], {"stdin": RAW, "preexec_fn":
                lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, 1 << 20))}),
        ):
            with self.subTest(args=args):
                self.refused(*args, says=says, **kwargs)
        self.assertEqual([pathlib.Path(name).read_bytes() for name in ("taken", "good")], [b"old", bytes(8 * 520)])
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

    def test_list_entries_make_no_difference(self):
        self.run_tool("protect", self.write("raw", ODD_RAW), "img")
        for entry in "520", "1040", "33800", "1560000000":  # up to 2048 entries a request, and one
            self.run_tool("protect", "--force", "--entry", entry, "raw", "same")
            self.assertEqual(pathlib.Path("same").read_bytes(), pathlib.Path("img").read_bytes(), entry)
            self.run_tool("strip", "--force", "--entry", entry, "img", "back")
            self.assertEqual(pathlib.Path("back").read_bytes(), ODD_RAW, entry)
        faults = self.damaged()
        self.assertEqual(self.verify("--all", "--entry", "1560", "--lba", "100", "img")["failed_blocks"], faults)

    def is_image(self, *parts):
        self.assertEqual(pathlib.Path("img").read_bytes(), b"".join(parts))

    def test_inject_show_relabel(self):
        for block, size in DATA_SIZE.items():
            good = expected_image(RAW[: 10 * size], block, "t10", 0x1FFFFFFFE)
            at = lambda index, byte: index * block + size + byte
            base = ["--block", str(block), "--first-lba", "0x1fffffffe", self.write("img", good)]
            image = good
            for index, faults, edits in (
                (1, ["--version", "0x1f"], [(at(1, 2), b"\x1f")]),
                (3, ["--crc", "0x1234"], [(at(3, 0), b"\x34\x12")]),
                (4, ["--lba", "0x1000000ff"], [(at(4, 4), b"\0\0\0\xff"), (at(5, 4), b"\0\0\1\0")]),
                (7, ["--bst"], [(at(7, 3), b"\3"), (at(8, 3), b"\3")]),
            ):
                place = ["--at", f"{0x1FFFFFFFE + index},{len(edits)}"]
                if image != good:
                    refusal = self.run_tool("inject", *base, *place, *faults, status=1).stderr.decode()
                    self.assertIn("block 1, LBA 8589934591: version error", refusal)
                    self.is_image(image)
                self.run_tool("inject", *base, *place, *faults, *(["--force"] if image != good else []))
                image = edited(image, *edits)
                self.is_image(image)
            wrong = {1: "version", 3: "guard", 4: "LBA", 5: "LBA"}
            self.assertEqual(self.verify("--all", *base)["failed_blocks"],
                             [(index, 0x1FFFFFFFE + index, kind) for index, kind in wrong.items()])
            lines = self.run_tool("show", *base, "--at", f"{0x1FFFFFFFE},10").stdout.decode().splitlines()
            for index, line in zip(range(10), lines, strict=True):
                guard, lba = good[at(index, 0) : at(index, 2)].hex(), index - 2 & 0xFFFFFFFF
                found, found_lba = ("3412", lba) if index == 3 else (guard, {4: 255, 5: 256}.get(index, lba))
                self.assertEqual(line, f"block {index}, LBA {0x1FFFFFFFE + index}: guard {found}" + (
                    ", version 0x1f invalid" if index == 1 else f" (expected {guard}), version 0x13 t10") +
                    f", flags {'0x03 bst' if index in (7, 8) else '0x02'} lba-valid, LBA {found_lba} (expected {lba})" +
                    (f"; wrong: {wrong[index]}" if index in wrong else ""))
            repair = ["--force", "--crc", "t10", "--lba", str(0x1FFFFFFFE)]
            marks = [(at(7, 3), b"\3"), (at(8, 3), b"\3")]
            self.run_tool("relabel", *base, *repair, "--bitmap", "3-4,1")
            self.is_image(edited(good, (at(5, 4), b"\0\0\1\0"), *marks))
            self.run_tool("relabel", *base, *repair)
            self.run_tool("relabel", *base, "--lba", "77")
            t10, crc32c = (edited(expected_image(RAW[: 10 * size], block, crc, 77), *marks) for crc in TUPLE_VERSION)
            self.is_image(t10)
            base[3] = "77"
            self.run_tool("relabel", *base, "--version-only", "--crc", "crc32c", "--bitmap", "9")
            self.is_image(edited(t10, (at(9, 2), b"\x29")))
            self.run_tool("relabel", *base, "--force", "--crc", "crc32c")
            self.is_image(crc32c)
            bad = edited(crc32c, (at(2, -1), bytes([crc32c[at(2, -1)] ^ 1])))
            self.write("img", bad)
            for force in [], ["--force"]:
                says = self.run_tool("convert", *base, *force, status=1).stderr.decode()
                self.assertIn("block 2, LBA 79: guard error", says)
                self.is_image(*([t10[: 2 * block], bad[2 * block : 3 * block], t10[3 * block :]] if force else [bad]))
            self.write("img", crc32c)
            self.run_tool("convert", *base)
            self.is_image(t10)

    def test_fields_go_on_from_request_to_request(self):
        self.write("raw", ODD_RAW)
        base0, base9, base5000 = (self.run_tool("protect", "--lba", lba, "raw", "-").stdout
                                  for lba in ("0", "9", "5000"))
        self.write("img", base0)
        self.run_tool("relabel", "--lba", "5000", "img")
        self.is_image(base5000)
        self.run_tool("inject", "--first-lba", "5000", "--at", "5003,3000", "--lba", "12", "img")
        self.is_image(base5000[: 3 * 520], base9[3 * 520 : 3003 * 520], base5000[3003 * 520 :])
        self.write("img", base0)
        self.run_tool("relabel", "--lba", "9", "--bitmap", "6199,2040-0x802,2050-2060", "img")
        self.is_image(base0[: 2040 * 520], base9[2040 * 520 : 2061 * 520], base0[2061 * 520 : -520], base9[-520:])

    def test_fold(self):
        raw = RAW[: 24 * 512]
        image = expected_image(raw, 520, "crc32c", 9)
        for crc, lba in ("t10", None), ("crc32c", 0x1FFFFFFFF):
            place = [] if lba is None else ["--lba", str(lba)]
            large = self.run_tool("fold", "--first-lba", "9", "--crc", crc, *place, "-", "-", stdin=image).stdout
            self.assertEqual(large, expected_image(raw, 4160, crc, lba))
            self.verify("--block", "4160", *place, "-", stdin=large, status=0)
        self.run_tool("protect", self.write("raw", RAW), "img")
        self.run_tool("fold", "img", "large")
        self.run_tool("protect", "--block", "4160", "--no-lba", "raw", "same")
        self.assertEqual(pathlib.Path("large").read_bytes(), pathlib.Path("same").read_bytes())
        self.damaged()
        before = sorted(os.listdir("."))
        says = self.run_tool("fold", "--all", "--first-lba", "100", "img", "new", status=1).stderr.decode()
        self.assertEqual((len(says.splitlines()), sorted(os.listdir("."))), (6, before))

    def test_standard_tuples(self):
        image, lba = b"", 0xFFFFFFFE
        for index in range(40):
            data, tag = RAW[index * 512 : index * 512 + 512], (0xFFFF if index % 8 == 1 else index).to_bytes(2, "big")
            image += data + crc16_t10(data).to_bytes(2, "big") + tag + (lba + index & 0xFFFFFFFF).to_bytes(4, "big")
        args = ["--standard", "--lba", str(lba), "--entry", "1040", "-"]
        self.assertEqual(self.verify(*args, stdin=image, status=0)["blocks_checked"], 40)
        bad = edited(image, *((index * 520 + byte, b"\xA5") for index, byte in
                              ((3, 7), (9, 512), (17, 519), (18, 513), (20, 512), (20, 516), (39, 517))))
        faults = [(3, lba + 3, "guard"), (18, lba + 18, "guard"), (20, lba + 20, "LBA"), (39, lba + 39, "LBA")]
        self.assertEqual(self.verify("--all", *args, stdin=bad)["failed_blocks"], faults)
        self.assertEqual(self.verify(*args, stdin=bad)["failed_blocks"], faults[:1])
        self.assertEqual(len(self.verify("--all", "--no-lba", *args, stdin=bad)["failed_blocks"]), 3)

    def test_interrupt_in_place_ends_between_requests(self):
        blocks = 2048 * 200
        os.truncate(self.write("img", b""), blocks * 520)
        image = os.open("img", os.O_RDONLY)
        self.addCleanup(os.close, image)
        command = [DIFCTL, "relabel", "--force", "--lba", "1", "img"]
        with subprocess.Popen(command, stderr=subprocess.PIPE) as tool:
            while os.pread(image, 1, 515) == b"\0":  # until the first request is written
                pass
            tool.send_signal(signal.SIGINT)
            self.assertEqual(tool.wait(timeout=20), 2)
            line = tool.stderr.read().decode()
        said = f"difctl: interrupted by SIGINT; the blocks before block (\\d+) of {blocks} are done\n"
        reached = int(re.fullmatch(said, line)[1])
        self.assertEqual((reached % 2048, 0 < reached < blocks), (0, True))
        for index in range(blocks):
            lba = os.pread(image, 8, index * 520 + 512)
            self.assertEqual(lba, b"\0\0\0\2" + (index + 1).to_bytes(4, "big") if index < reached else bytes(8), index)

    def test_operator_commands(self):
        shell = self.run_tool("shell", stdin=b"dif showdifswitch\n\nnonsense\nhelp dif\nexit\nmetrics\n", status=2)
        out = shell.stdout.decode()
        for part in "dif switch status: on\n", "unknown command 'nonsense'", "SYNOPSIS\n        dif showverifylevel":
            self.assertIn(part, out)
        self.assertNotIn("dif_switch", out)  # exit left the commands behind it alone
        self.run_tool("shell", "--cli", stdin=b"dif showverifylevel\n")
        self.run_tool("shell", "--cli", stdin=b"dif showdifswitch\n", status=2)
        self.assertIn(b"Test PASS", self.run_tool("selftest", "--times", "3", "--len", "513").stdout)
        self.run_tool("selftest", "--len", "0", status=1)
        self.refused("attach", "nowhere.sock", "metrics", says=["nowhere.sock", "No such file"])
        self.damaged()
        stats = self.run_tool("verify", "--all", "--lba", "100", "--stats", "--metrics", "m.prom", "img", status=1).stdout
        counters = re.search(rb"DIFCTL_IMAGE_VERIFY +0 +(\d+) +(\d+) +(\d+)\n", stats).groups()
        metrics = pathlib.Path("m.prom").read_bytes()
        for kind, count in zip((b"lba", b"crc", b"version"), counters):
            self.assertIn(b'kind="%s_error"} %s\n' % (kind, count), metrics.replace(b'mid="2"', b""))
            self.assertGreater(int(count), 0)
        self.refused("verify", "--metrics", "no/where", "img", "--lba", "100", says=["no/where"])

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
