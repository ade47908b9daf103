"""Drives the difctl command on real images: python3 difctl_test.py PATH_TO_DIFCTL [unittest arguments]."""
import contextlib, ctypes, functools, json, os, pathlib, pty, random, re, shlex, signal, socket
import subprocess, termios, time, unittest
from difctl_tool import DIFCTL, SANITIZED, ToolTest, shown

ISAL, LIBC = ctypes.CDLL("libisal.so.2"), ctypes.CDLL(None)
DATA_SIZE = {520: 512, 4160: 4096}  # of a block's bytes; the tuple follows
GUARD, VERSION, FLAGS, LBA = 0, 2, 3, 4  # where a tuple has them
T10, CRC32C = 0x13, 0x29


def guard(version, data):
    if version == T10:
        return (ISAL.crc16_t10dif(0, data, len(data)) & 0xFFFF).to_bytes(2, "big")
    return (~ISAL.crc32_iscsi(data, len(data), 0xFFFFFFFF) & 0xFFFF).to_bytes(2, "little")


def protected(raw, block=520, version=T10, lba=0):
    """The image of `raw` whose blocks have LBAs from `lba` on; None for none."""
    size, parts = DATA_SIZE[block], []
    for index, at in enumerate(range(0, len(raw), size)):
        place = bytes(5) if lba is None else b"\2" + (lba + index & 0xFFFFFFFF).to_bytes(4, "big")
        data = raw[at : at + size]
        parts += data, guard(version, data), bytes([version]), place, bytes(block - size - 8)
    return b"".join(parts)


def edited(image, *edits, block=520):
    """`image` with bytes replaced: (index of the block, offset in the tuple or, below 0, before it, bytes)."""
    image = bytearray(image)
    for index, offset, content in edits:
        at = index * block + DATA_SIZE[block] + offset
        image[at : at + len(content)] = content
    return bytes(image)


random.seed(20)
RAW = random.randbytes(6200 * 512)  # four requests, the last one short
IMAGE = protected(RAW, lba=100)
# Faults in three requests. A block without a valid LBA is none, and neither is the BST mark.
DAMAGED = edited(IMAGE, (5, FLAGS, b"\0"), (7, -10, b"data"), (2047, GUARD, b"\xA5\x5A"), (2048, LBA, bytes(4)),
                 (2049, LBA, bytes(4)), (2050, VERSION, b"\x1F"), (4100, FLAGS, b"\3"), (6199, VERSION, b"\x29"))


def fault(block, kind, image=DAMAGED, count=1):
    """The JSON object of a run of faults."""
    content = image[block * 520 : (block + 1) * 520]
    version, stored = content[514], content[512:520]
    expected, found = {"guard": (guard(version, content[:512]).hex(), stored[:2].hex()),
                       "LBA": (100 + block, int.from_bytes(stored[4:], "big")),
                       "version": (None, f"0x{version:02x}")}[kind]
    return {"block": block, "count": count, "lba": 100 + block, "kind": kind.lower(), "expected": expected,
            "found": found, "tuple": stored.hex()}


def fault_line(block, kind, image=DAMAGED, count=1):
    values = fault(block, kind, image)
    expected = "" if values["expected"] is None else f"expected {values['expected']}, "
    place = f"block {block}, LBA {100 + block}: {kind} error, " if count == 1 else (
        f"blocks {block}-{block + count - 1}, LBAs {100 + block}-{99 + block + count}: {kind} error, the first: ")
    return f"img: {place}{expected}found {values['found']}, tuple {values['tuple']}\n"


FAULT_RUNS = [(7, "guard", DAMAGED, 1), (2047, "guard", DAMAGED, 1), (2048, "LBA", DAMAGED, 2),
              (2050, "version", DAMAGED, 1), (6199, "guard", DAMAGED, 1)]
FAULT_LINES = [fault_line(*run) for run in FAULT_RUNS]
TOTALS = "img: blocks checked 6200, failed 6 (guard 3, LBA 2, version 1), unprotected 0"
ENDED = "img: blocks checked 8, failed 1 (guard 1, LBA 0, version 0), unprotected 0; ended at the first, --all goes on"
FORMAT = "; blocks of 520 bytes, LBAs from 100\n"


@contextlib.contextmanager
def running(*args, feed=b"", on_terminal=(), **streams):
    """A difctl that has taken `feed` and goes on, and the other end of the terminal of the streams `on_terminal`."""
    end, terminal = pty.openpty()
    streams = {"stdin": subprocess.PIPE, "stderr": subprocess.PIPE, **streams, **dict.fromkeys(on_terminal, terminal)}
    with subprocess.Popen([DIFCTL, *args], env={**os.environ, "TERM": "xterm"}, **streams) as tool:
        os.close(terminal)
        try:
            if feed:
                os.write(tool.stdin.fileno(), feed)
            yield tool, end
        finally:
            tool.kill()
            os.close(end)


class DifctlTest(ToolTest):
    def is_file(self, name, content):
        self.assertTrue(pathlib.Path(name).read_bytes() == content, f"{name} has other bytes")

    def refused(self, *args, says, **kwargs):
        """Runs a command that must not be done: one line that says why, the directory as it was."""
        before = sorted(os.listdir("."))
        self.run_tool(*args, status=2, says=re.compile(rf"difctl: [^\n]*{re.escape(says)}[^\n]*\n"), **kwargs)
        self.assertEqual(sorted(os.listdir(".")), before)

    def ended(self, tool, says, status=2):
        """Waits for difctl's end; the match of standard error with `says`."""
        self.assertEqual(tool.wait(timeout=20), status)
        said = tool.stderr.read().decode()
        self.assertRegex(said, f"^{says}$")
        return re.match(says, said)

    def test_images(self):
        """What commands make of whole images, in files and through pipes."""
        large = protected(RAW, 4160, CRC32C, 2)
        standard = b"".join(data + guard(T10, data) + bytes(2) + (7 + index).to_bytes(4, "big")
                            for index, data in enumerate(RAW[at : at + 512] for at in range(0, len(RAW), 512)))
        ten = RAW[: 10 * 4096]  # blocks of 4160, from here on
        place, edit = "--block 4160 --first-lba 0x1fffffffe", functools.partial(edited, block=4160)
        t10, crc32c = (protected(ten, 4160, version, 0x1FFFFFFFE) for version in (T10, CRC32C))
        for command, before, after in (
            ("protect --lba 100 --entry 520", RAW, IMAGE),
            ("protect --block 4160 --crc crc32c --lba 2", RAW, large),
            ("protect --block 4160 --no-lba", ten, protected(ten, 4160, T10, None)),
            ("protect --standard --lba 7", RAW, standard),
            ("strip --lba 100 --entry 545259520", IMAGE, RAW),
            ("strip --block 4160 --no-lba --entry 4160", large, RAW),
            ("strip --standard --lba 7", standard, RAW),
            ("fold --first-lba 100 --crc crc32c --lba 2", IMAGE, large),
            ("relabel --crc crc32c", IMAGE, protected(RAW, 520, CRC32C, 100)),
            ("relabel --set-lba 9", IMAGE + bytes(520 * 40), protected(RAW, lba=9) + bytes(520 * 40)),
            ("relabel --set-lba 3", large, protected(RAW, 4160, CRC32C, 3)),
            ("relabel --first-lba 100 --lba 9 --at 6299 --at 2140,0xb --at 2150,11", IMAGE,
             edited(IMAGE, *((i, LBA, (9 + i).to_bytes(4, "big")) for i in [*range(2040, 2061), 6199]))),
            ("inject --first-lba 100 --at 103,3000 --lba 12", IMAGE,
             edited(IMAGE, *((i, LBA, (9 + i).to_bytes(4, "big")) for i in range(3, 3003)))),
            (f"inject {place} --at 0x1ffffffff --set-version 255", t10, edit(t10, (1, VERSION, b"\xFF"))),
            (f"inject {place} --at 0x200000001 --crc 0x1234", t10, edit(t10, (3, GUARD, b"\x34\x12"))),
            (f"inject {place} --at 8589934594,2 --lba 0x1000000ff", t10,
             edit(t10, (4, LBA, b"\0\0\0\xFF"), (5, LBA, b"\0\0\1\0"))),
            (f"inject {place} --at 8589934597,2 --set-bst", t10, edit(t10, (7, FLAGS, b"\3"), (8, FLAGS, b"\3"))),
            (f"relabel {place} --version-only --force --crc crc32c --at 0x200000007", t10, edit(t10, (9, VERSION, b"\x29"))),
            (f"relabel {place} --version-only", edit(t10, *((i, GUARD, b"\0\0\x34") for i in range(10))),
             edit(t10, *((i, GUARD, b"\0\0\x13") for i in range(10)))),
            (f"relabel {place} --lba 77 --crc t10", edit(crc32c, (7, FLAGS, b"\3")),
             edit(protected(ten, 4160, T10, 77), (7, FLAGS, b"\3"))),
            (f"convert {place}", t10[: 4 * 4160] + crc32c[4 * 4160 :], t10),
        ):
            with self.subTest(command):
                words = command.split()
                self.write("img", before)
                if words[0] in ("protect", "strip", "fold"):
                    self.run_tool(*words, "--force", "img", "new")
                    self.is_file("new", after)
                    self.assertTrue(self.run_tool(*words, "-", "-", input=before) == after)
                else:
                    self.run_tool(*words, "img")
                    self.is_file("img", after)

    def test_damaged_images(self):
        self.write("img", DAMAGED)
        why = ("; it looks like blocks of 520 bytes with guard t10 and LBAs from 100; nothing is changed, --force goes "
               "ahead without this check\n")
        for command in "inject --at 200 --bst", "relabel --lba 1", "convert":
            base = [*command.split(), "--first-lba", "100", "img"]
            self.run_tool(*base, status=1, says=[FAULT_LINES[0], ENDED + why])
            self.run_tool(*base, "--all", status=1, says=[*FAULT_LINES, TOTALS + why])
            self.is_file("img", DAMAGED)
        for command in "strip", "fold":
            base = [command, "--first-lba", "100", "img"]
            self.run_tool(*base, "new", status=1, says=[FAULT_LINES[0], ENDED + "; nothing is written to new\n"])
            self.run_tool(*base, "--all", "-", status=1,
                          says=[*FAULT_LINES, TOTALS + "; nothing is written to standard output\n"])
        self.assertEqual(os.listdir("."), ["img"])
        self.refused("fold", self.write("odd", DAMAGED[:-520]), "new", says="odd: has 7 blocks beyond a multiple of 8")
        raw = self.run_tool("strip", "--no-lba", "-", "-", input=IMAGE[: 4096 * 520] + DAMAGED, status=1,
                            says=re.compile(".*goes on; what was written to standard output cannot be undone\n"))
        self.assertTrue(raw == RAW[: 4096 * 512])  # the requests before the one that fails
        self.run_tool("inject", "--force", "--first-lba", "100", "--at", "100", "--crc", "0", "img")
        self.is_file("img", edited(DAMAGED, (0, GUARD, bytes(2))))
        damaged = edited(protected(RAW, 520, CRC32C, 100), (2050, -1, b"\0"), (6199, GUARD, bytes(2)))
        converted = IMAGE[: 2050 * 520] + damaged[2050 * 520 : 2051 * 520] + IMAGE[2051 * 520 : -520] + damaged[-520:]
        says = [fault_line(2050, "guard", damaged), fault_line(6199, "guard", damaged),
                "img: blocks checked 6200, failed 2 (guard 2, LBA 0, version 0), unprotected 0; these are left as they were\n"]
        for kwargs in {"says": says}, {"preexec_fn": lambda: os.close(2)}:  # whose number the image must not get
            self.write("img", damaged)
            self.run_tool("convert", "--force", "--first-lba", "100", "img", status=1, **kwargs)
            self.is_file("img", converted)

    def test_verify_tells_every_fault(self):
        self.write("img", DAMAGED)
        answers = {"some block carries the BST mark": "have_bst", "every block has a valid LBA": "all_lba_valid",
                   "every block is zero data": "all_zero", "some version is neither 0x00 nor 0x13 (T10)": "not_t10",
                   "some version is unknown": "unknown_version", "some version is 0x00 or 0xff": "version_zero"}
        holds = {"have_bst", "not_t10", "unknown_version"}
        report = "".join(f"{words}: {'yes' if key in holds else 'no'}\n" for words, key in answers.items())
        for every, lines, end in (["--all"], FAULT_LINES, TOTALS), ([], FAULT_LINES[:1], ENDED):
            base = ["verify", "--lba", "100", *every, "img"]
            self.assertEqual(self.run_tool(*base, status=1).decode(), "".join(lines) + end + FORMAT)
            self.assertEqual(self.run_tool(*base, "--report", status=1).decode(), "".join(lines) + report + end + FORMAT)
            failed = {"total": 6, "guard": 3, "lba": 2, "version": 1} if every else {
                "total": 1, "guard": 1, "lba": 0, "version": 0}
            result = {"schema": 2, "image": "img", "block_size": 520, "first_lba": 100,
                      "faults": [fault(*run) for run in FAULT_RUNS][: len(lines)], "faults_omitted": 0,
                      "failed": {**failed, "unprotected": 0, "unreadable": 0}, "complete": bool(every),
                      "blocks_checked": 6200 if every else 8, "blocks_unprotected": 0,
                      "report": {key: key in holds for key in answers.values()}}
            self.assertEqual(json.loads(self.run_tool(*base, "--json", "--report", status=1)), result)
            few = json.loads(self.run_tool(*base, "--json", "--report", "--max-faults", "1", status=1))
            self.assertEqual(few, {**result, "faults": result["faults"][:1], "faults_omitted": len(lines) - 1})
        some = self.run_tool("verify", "img", "--at", "2146,4", "--all", "--max-faults=1", "-q", status=1).decode()
        self.assertEqual(some, FAULT_LINES[1] + "img: 1 more run of failed blocks is not named\n"
                         "img: blocks checked 4, failed 3 (guard 1, LBA 2, version 0), unprotected 0" + FORMAT)
        self.assertEqual(self.run_tool("verify", "img", "--at", "1000,1K", "-q"), b"")
        result = json.loads(self.run_tool("verify", "--json", "--no-lba", self.write(b"\xff", IMAGE)))
        self.assertEqual((result["image"], result["faults"], "report" in result), ("\ufffd", [], False))
        self.run_tool("verify", "-v", "--lba", "100", "img", status=1, says=re.compile(".*NOTICE.*Exit DIF Module.*"))
        for _ in range(2):  # the second file replaces the first
            stats = self.run_tool("verify", "--all", "--lba", "100", "--stats", "--metrics", "m.prom", "img", status=1)
        counters = re.search(rb"DIFCTL_IMAGE_VERIFY +0 +(\d+) +(\d+) +(\d+)\n", stats).groups()
        metrics = pathlib.Path("m.prom").read_bytes()
        for kind, count in zip((b"lba", b"crc", b"version"), counters):
            self.assertIn(b'kind="%s_error"} %s\n' % (kind, count), metrics.replace(b'mid="2"', b""))
            self.assertGreater(int(count), 0)

    def test_verify_questions(self):
        t10, crc32c = protected(RAW[:1024], lba=None), protected(RAW[:512], 520, CRC32C, None)
        zero, first = protected(bytes(2 * 512), lba=0), 0xFFFFFFFE
        standard = b"".join(data + guard(T10, data) + (b"\xFF\xFF" if index % 8 == 1 else b"ab") +
                            (first + index & 0xFFFFFFFF).to_bytes(4, "big")
                            for index, data in enumerate(RAW[at : at + 512] for at in range(0, 40 * 512, 512)))
        bad = edited(standard, *((index, offset, b"\xA5") for index, offset in
                                 ((3, -9), (9, 0), (17, 7), (18, 1), (20, 0), (20, 4), (39, 5))))
        for image, options, faults, holds in (
            (zero, "--report", {}, ["all_lba_valid", "all_zero"]),
            (zero, "--no-lba --first-lba 7", {}, []),
            (edited(zero, (0, FLAGS, b"\3")) + t10, "--report --no-lba", {}, ["have_bst"]),
            (t10 + bytes(520) + zero, "--all --require --no-lba", {2: "unprotected"}, []),
            (bytes(2048 * 520) + protected(RAW[:512], lba=2048), "--report", {}, ["version_zero"]),
            (t10 + crc32c + bytes(520), "--all --crc t10", {2: "version", 3: "version"}, []),
            (t10 + crc32c + bytes(520), "--all --crc crc32c", {0: "version", 1: "version", 3: "version"}, []),
            (t10 + crc32c, "--crc crc32c", {0: "version"}, []), (standard, f"--standard --lba {first}", {}, []),
            (bad, "--standard --no-lba --lba 3 --all", {3: "guard", 18: "guard", 20: "guard"}, []),
            (bad, f"--standard --lba {first} --all --entry 1040", {3: "guard", 18: "guard", 20: "lba", 39: "lba"}, []),
        ):
            result = self.run_tool("verify", "--json", *options.split(), "-", input=image, status=int(bool(faults)))
            result = json.loads(result)
            self.assertEqual(result["image"], "standard input")
            self.assertEqual({run["block"] + i: run["kind"] for run in result["faults"] for i in range(run["count"])}, faults, options)
            self.assertEqual([key for key, answer in result.get("report", {}).items() if answer], holds)

    def test_info(self):
        large, ref = protected(RAW, 4160, CRC32C, 7), lambda index: (9 + index).to_bytes(4, "big")
        plain = b"".join(data + guard(T10, data) + b"ab" + ref(index)
                         for index, data in enumerate(RAW[at : at + 512] for at in range(0, 16 * 512, 512)))
        for image, seen in (
            (edited(IMAGE, (3, -1, b"x"), (9, FLAGS, b"\3")),
             dict(block_size=520, blocks=6200, guards=["t10"], first_lba=100, protected=6200, bst=1)),
            (large + bytes(4160 * 775) + b"tail", dict(block_size=4160, blocks=1550, guards=["crc32c"], first_lba=7,
                                                      bytes_behind=4, protected=775, unwritten=775, looked_at=1550)),
            (plain, dict(block_size=520, standard=True, first_lba=9, guards=["t10"])),
            (IMAGE[: 520 * 9] + RAW[: 520 * 7], dict(protected=9, unknown=7, looked_at=16)),
            (RAW, dict(fields=False, zeros=False)), (bytes(4160), dict(fields=False, zeros=True)),
        ):
            self.write("img", image)
            said = json.loads(self.run_tool("info", "--all", "--json", "img"))
            self.assertEqual({**said, **seen, "schema": 2, "bytes": len(image), "sample": False}, said)
        self.write("img", IMAGE)
        self.assertEqual(self.run_tool("info", "img").decode().splitlines()[:2],
                         ["img: blocks of 520 bytes with guard t10 and LBAs from 100",
                          "length:            3224000 bytes, 6200 blocks"])
        self.assertIn(b"with a field:      1024 (100%)", self.run_tool("info", "img"))
        self.assertEqual(self.run_tool("info", self.write("img", RAW)), b"img: data without fields of either block size\n")
        plain = edited(plain, (3, 2, b"\xFF\xFF"), (4, 7, b"\0"))
        self.refused("verify", self.write("plain", plain), says="LBAs from 9, plain T10; --standard fits")
        self.refused("fold", "plain", "new", says="--standard fits")
        self.refused("relabel", "--set-lba", "1", "plain", says="whose LBAs this command does not check; --force goes ahead")
        lines = self.run_tool("show", "--standard", "plain", "--at", "11,3").decode().splitlines()
        self.assertRegex(lines[0], r"\(expected \w+\), application tag 0x6162, reference tag 11 \(expected 11\)$")
        self.assertRegex(lines[1], r"^block 3, LBA 12: guard \w+, application tag 0xffff, .* 12; exempt from checks$")
        self.assertRegex(lines[2], r"reference tag 0 \(expected 13\); wrong: reference tag$")

    def test_repair(self):
        """Two replicas with damage here and there, in data, fields and places; blocks of zeros in one do not heal."""
        for block, version in (520, T10), (4160, CRC32C):
            good = protected(RAW, block, version, 40)
            blocks = len(good) // block
            faults = lambda: {random.randrange(blocks): random.choice((-9, 0, 2, 7)) for _ in range(60)}
            ours, theirs = faults(), faults()
            left = sorted((ours.keys() & theirs.keys()) | {5, blocks - 1})
            ours |= dict.fromkeys(left, -9)
            theirs |= dict.fromkeys(left, 0)
            bad = edited(good, *((index, offset, b"\xEE") for index, offset in ours.items()), block=block)
            other = edited(good, *((index, offset, b"\xEE") for index, offset in theirs.items()), block=block)
            other = other[: 5 * block] + bytes(block) + other[6 * block :]
            healed = b"".join((bad if index in left else good)[index * block :][:block] for index in range(blocks))
            self.write("img", bad), self.write("replica", other)
            words, totals = ["repair", "img", "--from", "replica"], (
                f"img: blocks checked {blocks}, %s replica {len(ours) - len(left)}, failing in both and left {len(left)}, unprotected 0\n")
            named = re.compile(".*block 5, LBA 45: guard error.*")
            out = self.run_tool(*words, "--dry-run", status=1, says=named)
            self.assertEqual(out.decode(), totals % "to be taken from")
            self.is_file("img", bad)
            self.assertEqual(self.run_tool(*words, status=1, says=named).decode(), totals % "taken from")
            self.is_file("img", healed)
            self.is_file("replica", other)
            for words, status in (["-n"], 1), ([], 0), (["-n"], 0):  # the last finds nothing to do
                self.run_tool("repair", *words, "img", "--from", self.write("good", good), status=status)
            self.is_file("img", good)
        bad = edited(IMAGE, (7, GUARD, bytes(2)))
        self.write("good", IMAGE), self.write("moved", protected(RAW, lba=101))
        empty = lambda data: protected(b"".join(data[at : at + 512] + bytes(512 * 7) for at in range(0, 512 * 700, 512)))
        for image, other, says in (
            (bad, protected(RAW[::-1], lba=100), "blocks that pass in both, 1024 differ; --force goes ahead"),
            (bad, protected(RAW[: 512 * 3000] + RAW[::-1][512 * 3000 :], lba=100), "pass in both, 528 differ; --force goes ahead"),
            (edited(empty(RAW), (8, -1, b"x")), empty(RAW[::-1]), "differ; --force goes ahead"),
            (bad, protected(RAW, lba=101), "it looks like blocks of 520 bytes with guard t10 and LBAs from 101, not"),
            (bad, protected(RAW[: 512 * 6144], 4160, lba=100), "it looks like blocks of 4160 bytes"),
        ):
            self.refused("repair", self.write("img", image), "--from", self.write("other", other), says=says)
            self.is_file("img", image)
        self.write("img", bad)
        self.refused("repair", "--force", "img", "--from", "moved", says="LBAs from 101, not blocks of 520 bytes, LBAs from 100")
        self.refused("repair", "img", "--from", "./img", says="./img: is IMG itself")
        self.run_tool("protect", "--standard", "--first-lba", "100", "-", "plain", input=RAW)
        self.refused("repair", "img", "--from", "plain", says="plain T10, not")
        for words in ["zeros"], ["--dry-run", "zeros"], ["--force", "--require", "zeros"]:
            self.write("zeros", bytes(len(IMAGE)))
            self.refused("repair", *words, "--from", "good", says="zeros: ")
        self.write("img", bad[: 520 * 50] + bytes(520 * 9) + bad[520 * 59 :])
        self.assertIn(b"taken from good 1, failing in both and left 0, unprotected 9", self.run_tool("repair", "img", "--from", "good"))
        self.run_tool("repair", "img", "--from", "good", "--require")
        self.is_file("img", IMAGE)
        self.write("img", bad)
        self.refused("repair", "img", "--from", self.write("short", IMAGE[:5200]), says="it has 10 blocks, not 6200")

    def test_show(self):
        shown_as = {  # behind zero data, from LBA 0x1fffffffe on
            "1234 34 00 00000007": "guard 1234, version 0x34 no-crc, flags 0x00, LBA 7",
            "0100 13 02 ffffffff": "guard 0100 (expected 0000), version 0x13 t10, flags 0x02 lba-valid, "
                                   "LBA 4294967295 (expected 4294967295); wrong: guard",
            "0000 29 03 00000009": "guard 0000 (expected c0ed), version 0x29 crc32c, flags 0x03 bst lba-valid, "
                                   "LBA 9 (expected 0); wrong: guard LBA",
            "0000 00 00 00000000": "guard 0000 (expected 0000), version 0x00 none, flags 0x00, LBA 0",
            "0000 1f 00 00000000": "guard 0000, version 0x1f invalid, flags 0x00, LBA 0; wrong: version",
            "0000 ff 00 00000000": "guard 0000, version 0xff unknown, flags 0x00, LBA 0; wrong: version",
            "0000 ff ff 00000000": "guard 0000, version 0xff unknown, flags 0xff bst lba-valid, LBA 0; "
                                   "exempt from checks",
        }
        lines = [f"block {index}, LBA {0x1FFFFFFFE + index}: {text}\n" for index, text in enumerate(shown_as.values())]
        self.write("img", b"".join(bytes(512) + bytes.fromhex(fields) for fields in shown_as))
        base = ["show", "--lba", "0x1fffffffe", "img", "--at"]
        self.assertEqual(self.run_tool(*base, "0x1fffffffe,7").decode(), "".join(lines))
        self.assertEqual(self.run_tool(*base, str(0x1FFFFFFFE + 4)).decode(), lines[4])
        large = self.write("img", protected(RAW[: 600 * 4096], 4160, CRC32C, 100))  # three requests
        lines = self.run_tool("show", "--block", "4160", "--lba", "100", large, "--at", "199,450").decode()
        self.assertEqual(re.findall(r"block (\d+)|(wrong)", lines), [(str(i), "") for i in range(99, 549)])

    def test_refusals(self):
        for name, content in (("raw", RAW[:4096]), ("odd", RAW[:1000]), ("taken", b"old"), ("good", bytes(8 * 520)), ("place", IMAGE),
                              ("mixed", protected(RAW[:2048]) + protected(RAW[:2048], version=CRC32C, lba=4))):
            self.write(name, content)
        os.mkfifo("fifo")
        for command, says in {
            "protect odd new": "odd: length 1000 is not whole blocks of 512 bytes: 488 bytes are left after 1 blocks",
            "protect raw fifo --force": "fifo: is not a regular file; write to '-' and redirect that",
            "protect raw taken": "taken: exists already; --force replaces it",
            "protect --lba -1 raw new": "--first-lba: '-1' is not a number from 0 to 18446744073709551615",
            "": "A command, such as verify, is required",
            "-v verfy good": "unknown command 'verfy', did you mean 'verify'?",
            "verify --frst-lba=3 good": "unknown option '--frst-lba', did you mean '--first-lba'?",
            "frobnicate": "unknown command 'frobnicate'; --help",
            "verify --first-lba 7 place": "--first-lba 7 contradicts its fields, which look like blocks of 520 bytes with "
                                          "guard t10 and LBAs from 100; --first-lba 100 fits",
            "show --block 4160 place --at 100": "--block 520 fits",
            "strip --crc crc32c place new": "--crc crc32c contradicts its fields, which look like blocks of 520 bytes with "
                                            "guard t10 and LBAs from 100; --crc t10 fits",
            "selftest --times 0": "--times 0 would compare nothing",
            "verify --entry 0 --block 4160 good": "--entry 0: a list entry holds whole blocks of 4160 bytes, at least",
            **dict.fromkeys(("verify --standard --report good", "verify --at 1 --report good", "verify --standard --crc t10 good",
                             "verify --stats --json good", "protect --first-lba 1 --no-lba raw new", "protect --standard --crc t10 raw new",
                             "relabel --version-only --lba 1 good"), "excludes"),
            "verify .": ".: is a directory, not an image",
            "relabel --lba 1 --block 4160 mixed": "which look like blocks of 520 bytes with guards t10 and crc32c and LBAs from 0",
            "relabel --lba 1 -": "standard input: cannot be changed in place; name a file",
            "relabel --lba 1 nowhere": "nowhere: cannot open for writing: No such file",
            "show --lba 18446744073709551615 good --at 0": "--at 0,1: is not all in good",
            "inject --at 0 --version 256 good": "--set-version: '256' is not a number from 0 to 255",
            "inject --at 0 --crc 65536 good": "--set-guard: '65536' is not a number from 0 to 65535",
            "verify --block 512 good": "--block: 512 not in {520,4160}",
            **dict.fromkeys(("protect --crc T10 raw new", "verify --crc T10 good", "relabel --crc T10 good"),
                            "--crc: T10 not in {t10,crc32c}"),
            "show - --at 0": "standard input: has no known length",
            "show good --at 1x": "--at '1x': is not an LBA or LBA,COUNT",
            "show good --at 0,0": "--at '0,0': is not an LBA or LBA,COUNT with a COUNT from 1 on",
            "inject --at 0 good": "no fault is asked for; give at least one of --set-version, --set-guard, --set-lba and --set-bst",
            "inject --force --at 6,3 --bst good": "--at 6,3: is not all in good, whose 8 blocks start at LBA 0",
            "verify --metrics no/where good": "no/where: cannot create a file",
            "attach nowhere.sock metrics": "nowhere.sock: cannot run a command through this socket: No such file",
            "relabel --lba 1 --force good --at 1 --at 2,7": "--at 2,7: is not all in good, whose 8 blocks start at LBA 0",
            "relabel good": "no field is asked for; give at least one of --set-lba, --crc and --version-only",
        }.items():
            with self.subTest(command):
                self.refused(*command.split(), says=says)
        end, terminal = pty.openpty()
        full = os.open("/dev/full", os.O_WRONLY)
        for command, says, kwargs in (
            ("verify -", "standard input: is empty", {"input": b""}),
            ("protect - -", "488 bytes are left after 4097 blocks; what was written to standard output cannot be",
             {"input": RAW[: 4097 * 512 + 488]}),
            ("strip --lba 100 - -", "1 bytes are left after 4096 blocks; what was written to standard output cannot be",
             {"input": IMAGE[: 4096 * 520] + b"x"}),
            ("fold - new", "standard input: has 1 blocks beyond a multiple of 8", {"input": bytes(9 * 520)}),
            ("protect raw -", "standard output: cannot write at offset 0: No space", {"stdout": full}),
            ("protect raw -", "standard output: is a terminal; redirect it", {"stdout": terminal}),
            ("protect raw -", "standard output: cannot write at offset 0: Bad", {"preexec_fn": lambda: os.close(1)}),
            ("verify -", "standard input: cannot read at offset 0: Bad file", {"preexec_fn": lambda: os.close(0)}),
            ("verify good", "standard output: cannot write the results: No space", {"stdout": full}),
        ):
            with self.subTest(command):
                self.refused(*command.split(), says=says, **kwargs)
        self.is_file("taken", b"old"), self.is_file("good", bytes(8 * 520))
        os.chmod("raw", 0)  # which root heeds without CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH
        heed = lambda: [LIBC.prctl(24, capability) for capability in (1, 2) if os.getuid() == 0]  # PR_CAPBSET_DROP
        self.refused("verify", "raw", says="raw: cannot open: Permission denied", preexec_fn=heed)

    def test_streams_and_names(self):
        self.write("raw", RAW), self.write("img", IMAGE)
        with open("img", "rb") as image:  # from where it stands
            image.seek(6000 * 520)
            self.assertIn(b"blocks checked 200, failed 0", self.run_tool("verify", "--lba", "6100", "-", stdin=image))
            image.seek(6201 * 520)
            self.refused("verify", "-", says="standard input: is empty, an image has at least one block", stdin=image)
        stream, into = os.pipe()
        os.set_blocking(into, False)
        dd = ["dd", "if=raw", "bs=700", "status=none"]  # of which reads end inside blocks
        with subprocess.Popen(dd, stdout=subprocess.PIPE) as odd, open(stream, "rb") as image:
            with running("protect", "--lba", "100", "-", "-", stdin=odd.stdout, stdout=into):
                os.close(into)
                self.assertTrue(image.read() == IMAGE)
        taken = ["sh", "-c", 'touch .difctl-$$-0.tmp && exec "$@"', "sh"]  # the name that it would take first
        self.run_tool("protect", "--force", "raw", self.write("new", b""), under=taken)
        os.symlink("raw", "link")
        self.run_tool("protect", "--force", "--lba", "100", "raw", "link")
        self.assertTrue(os.path.islink("link"))
        self.is_file("raw", IMAGE)

    def test_interrupts_in_place(self):
        blocks = 1 << 30
        os.truncate(self.write("img", b""), blocks * 520)  # zeros, which pass
        with running("relabel", "--lba", "1", "--force", "img") as (tool, _):
            process = pathlib.Path(f"/proc/{tool.pid}")
            while int(re.search(r"wchar: (\d+)", (process / "io").read_text())[1]) < 2 << 20:  # eight bytes a block
                time.sleep(0.01)
            peak = int(re.search(r"VmHWM:\s*(\d+)", (process / "status").read_text())[1])
            tool.send_signal(signal.SIGINT)
            says = rf"difctl: interrupted by SIGINT; the blocks before block (\d+) of {blocks} are done\n"
            reached = int(self.ended(tool, says)[1])
        self.assertTrue(SANITIZED or peak < 64 << 10, f"{peak} KiB of memory")
        self.assertEqual(reached % 2048, 0)
        with open("img", "rb") as image:
            tuples = image.read(reached * 520)
            self.assertEqual(image.read(2048 * 520), bytes(2048 * 520))
        self.assertTrue(tuples[515::520] == b"\2" * reached)
        self.assertEqual(tuples[-4:], reached.to_bytes(4, "big"))

    def test_what_comes_in_between(self):
        with running("protect", "-", "new", feed=RAW[: 2 << 20]) as (tool, _):
            self.write("new", b"of another")
            tool.stdin.close()
            self.ended(tool, "difctl: new: has appeared meanwhile and is left as it is; --force replaces it\n")
        self.is_file("new", b"of another")
        with running("verify", "--lba", "100", "-", feed=DAMAGED[: 2048 * 520], stdout=subprocess.DEVNULL) as (tool, _):
            self.ended(tool, "", status=1)  # though there may be more to read
        with running("strip", "--lba", "100", "-", "raw", feed=DAMAGED[: 2048 * 520]) as (tool, _):
            self.ended(tool, "(?s:.*); nothing is written to raw\n", status=1)
        ignore = lambda: signal.signal(signal.SIGINT, signal.SIG_IGN)
        with running("protect", "--force", "-", "new", feed=RAW[: 2 << 20], preexec_fn=ignore) as (tool, _):
            tool.send_signal(signal.SIGINT)
            tool.stdin.close()
            self.ended(tool, "", status=0)
        for length in 32 << 20, 65 << 20:
            os.truncate(self.write("raw", b""), 64 << 20)
            with running("protect", "raw", "-", stdout=subprocess.PIPE) as (tool, _):
                tool.stdout.read(1)  # it has begun, and the full pipe holds it
                os.truncate("raw", length)
                tool.stdout.read()
                self.ended(tool, "difctl: raw: changed its length while it was read: 67108864 bytes at first, .*\n")

    def test_system_calls(self):
        self.write("raw", RAW), self.write("img", IMAGE)
        env = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}
        traced = "trace=fsync,linkat,writev"
        strace = ["strace", "-f", "-y", "-qq", "-o", "calls", "-e", traced, "-e"]
        for command, expected in (("relabel --force --lba 1 --at 2148 img", ["fsync"]),
                                  ("convert --no-lba img", ["fsync"]),
                                  ("protect raw new", ["writev"] * 4 + ["fsync", "linkat", "fsync"])):
            self.run_tool(*command.split(), under=[*strace, "status=successful"], env=env)
            calls = pathlib.Path("calls").read_text()
            self.assertEqual(re.findall(r"(?m)^\d+ +(\w+)", calls), expected, command)
        self.assertIn(f"<{os.getcwd()}>)", calls.splitlines()[-1])  # the directory is on stable storage, too

    def test_progress(self):
        os.truncate(self.write("raw", b""), 256 << 20)
        bar = r"\[#{7,8}\.{22,23}\]  2[567]%  \d\d of 256 MiB  \d+ MiB/s  0:0[1-9] left"
        with running("protect", "raw", "-", on_terminal=["stderr"], stdout=subprocess.PIPE) as (tool, end):
            tool.stdout.read(64 << 20)
            time.sleep(0.6)  # it waits that long before it shows anything
            tool.stdout.read(4 << 20)
            shown(end, rf"\r\x1b\[K\x1b\[\?7l{bar}\x1b\[\?7h$")
            tool.terminate()
            self.assertIn("\r\x1b[Kdifctl: interrupted by SIGTERM; what was written", shown(end))
        self.run_tool("protect", "-p", "--first-lba", "3", "raw", "new", says=re.compile(r"\r.*\d%  .* MiB/s .*"))
        begun = time.monotonic()
        self.assertEqual(self.run_tool("verify", "--rate=4M", "--at=9,8K", "-q", "new"), b"")
        self.assertGreater(time.monotonic() - begun, 0.9)
        os.truncate(self.write("img", b""), 520 << 30)
        for command in ["verify", "img"], ["strip", "img", "-"]:
            with running(*command, on_terminal=["stderr"], stdout=subprocess.DEVNULL) as (_, end):
                shown(end, r"\d of 532480 MiB")
        os.truncate("raw", 1 << 40)
        for verbose in [], ["-v"]:
            with running(*verbose, "protect", "raw", "-", on_terminal=["stderr"], stdout=subprocess.PIPE) as (tool, end):
                for _ in range(3):
                    tool.stdout.read(1 << 20)
                    time.sleep(0.3)
                tool.terminate()
                self.assertEqual(bool(re.search(r"  \d{1,3}:[0-5]\d:[0-5]\d left", shown(end))), not verbose)
        streams = {"on_terminal": ["stderr"], "stdout": subprocess.DEVNULL}
        with running("protect", "-", "-", feed=RAW[: 2 << 20], **streams) as (tool, end):
            time.sleep(0.6)
            os.write(tool.stdin.fileno(), RAW[: 1 << 20])
            tool.stdin.close()
            self.assertRegex(shown(end), r"\x1b\[\?7l[123] MiB  \d MiB/s\x1b\[\?7h\r\x1b\[K$")

    def test_shell_and_selftest(self):
        usage = "Error: selftest takes two numbers at most.\nUsage:\n        selftest [TIMES [LEN]] "
        for script, status, says in (("nonsense\nquit\nmetrics\n", 2, "'nonsense'"),
                                     ("nonsense\nhelp\n", 2, "selftest              compare"),
                                     ("selftest 1 2 3\n", 2, usage), ("selftest 0x2 64\n", 0, "Test PASS")):
            out = self.run_tool("shell", input=script.encode(), status=status).decode()
            self.assertIn(says, out)
            self.assertNotIn("dif_switch", out)  # what stands behind the end
        self.run_tool("shell", "--cli", input=b"dif showdifswitch\n", status=2)
        self.assertRegex(self.run_tool("selftest", "--times", "3", "--len", "513"),
                         rb"Test PASS:\nTime:\n(\w+_time: \d+ us \d+\.\d\d GB/s\n){3}$")
        self.run_tool("selftest", "--len", "0", status=1)
        self.write("raw.img", b"")
        with running("shell", on_terminal=["stdin", "stdout", "stderr"]) as (tool, end):
            shown(end, "dif> $")
            for typed, answer in (("hel\tdi\t\r", "SYNOPSIS"), ("nonsense\r", "unknown command 'nonsense'"), (" \r", ""),
                                  ("\x1b[A\r", "'nonsense'"), ("dif showd\t\r", "dif switch status: on"),
                                  ("dif ra\t\r", "dif ra\r\n"), ("\x04", "\r\n")):
                while termios.tcgetattr(end)[3] & termios.ICANON:
                    time.sleep(0.01)
                os.write(end, typed.encode())
                self.assertIn(answer, shown(end, "dif> $"))
            self.assertEqual(tool.wait(timeout=20), 0)
        with running("shell", "--cli", on_terminal=["stdin", "stdout", "stderr"]) as (tool, end):
            shown(end, "dif> $")
            while termios.tcgetattr(end)[3] & termios.ICANON:
                time.sleep(0.01)
            os.write(end, b"dif showd\t\r")
            text = shown(end, "unknown|USAGE|Usage|status")
            self.assertNotIn("ifswitch", text)  # which only the diagnose shell has

    def test_attach(self):
        with socket.socket(socket.AF_UNIX) as server:
            server.bind("sock"), server.listen()
            for options, shell, status in (["--cli"], "cli", 0), ([], "diagnose", 7):
                words = ["two  words", "it's", '"', "back\\slash", "", "$HOME", "*", "a"]
                with running("attach", "sock", *options, *words, stdout=subprocess.PIPE) as (tool, _):
                    with server.accept()[0] as client:
                        self.assertEqual(shlex.split(client.recv(4096).decode()), [shell, *words])
                        client.sendall(b"text\0%d\n" % status)
                    self.assertEqual(tool.stdout.read(), b"text")
                    self.ended(tool, "", status=2 if status else 0)

    def test_help(self):
        self.assertRegex(self.run_tool("--version"), rb"^difctl \d+\.\d+\.\d+\n$")
        commands = re.findall(r"(?m)^  ([a-z]+)   ", self.run_tool("--help").decode())
        self.assertEqual(len(commands), 13)
        for command in commands:
            text = self.run_tool(command, "--help").decode()
            self.assertRegex(text, r"\nExit status: 0 .*\.\n\nExamples:\n")
            self.assertEqual(self.run_tool("help", command).decode(), text)
            self.assertRegex(text, r"\n  -v,--verbose .*\n  -q,--quiet ")
            examples = re.findall(r"(?m)(?:^  |\| )difctl (" + command + r"[^|>&\n]*)", text)
            self.assertTrue(examples, command)
            for example in examples:  # is understood, whether or not its files are there
                done = subprocess.run([DIFCTL, *shlex.split(example)], input=b"", capture_output=True)
                self.assertNotIn(b"--help tells more", done.stderr, example)


if __name__ == "__main__":
    unittest.main()
