"""Serves images through the nbdkit filter: nbdkit_test.py FILTER DIFCTL INTERPOSER_PLUGIN [unittest arguments]."""
import contextlib, os, pathlib, random, re, signal, struct, subprocess, sys, tempfile, threading, time, unittest

import nbd

FILTER, DIFCTL, INTERPOSER = (str(pathlib.Path(sys.argv.pop(1)).resolve()) for _ in range(3))
SEED = int(os.environ.get("SEED", random.randrange(1 << 32)))
MARKS = 4096  # where the marks of an intent file begin
DATA = {520: 512, 4160: 4096}


def difctl(*words):
    done = subprocess.run([DIFCTL, *map(str, words)], capture_output=True, text=True)
    return done.returncode, done.stdout + done.stderr


class Server:
    """nbdkit with the filter over `plugin`, its messages in a file."""

    def __init__(self, folder, *plugin, wait=True, filters=(FILTER,), **parameters):
        self.folder = pathlib.Path(folder)
        self.path, self.messages = str(self.folder / "nbd"), self.folder / "messages"
        words = [f"--filter={path}" for path in filters] + list(map(str, plugin))
        words += [f"dif-{key}={value}" for key, value in parameters.items()]
        with self.messages.open("w") as messages:
            self.process = subprocess.Popen(["nbdkit", "-f", "-U", self.path, *words], stderr=messages)
        end = time.monotonic() + 60
        while wait and not (self.listens() and os.path.exists(parameters.get("socket", folder))):
            assert self.process.poll() is None and time.monotonic() < end, self.messages.read_text()
            time.sleep(0.01)

    def listens(self):
        """Its socket has its name a little earlier."""
        sockets = map(str.split, pathlib.Path("/proc/net/unix").read_text().splitlines())
        return any(words[-1] == self.path and words[3] == "00010000" for words in sockets)

    def connect(self):
        client = nbd.NBD()
        client.add_meta_context("base:allocation")
        client.set_strict_mode(0)
        client.connect_unix(self.path)
        return client

    def end(self, kind=signal.SIGTERM):
        self.process.send_signal(kind)
        self.process.wait(60)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)
        return self.messages.read_text()


class FilterTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="dif-nbdkit-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.random = random.Random(SEED)

    def serve(self, *plugin, **parameters):
        server = Server(self.folder, *plugin, **parameters)
        self.addCleanup(server.end, signal.SIGKILL)
        return server

    def image(self, blocks, size=520, *options):
        """A protected image of random data, and the data."""
        raw, path = self.random.randbytes(blocks * DATA[size]), self.folder / "disk.dif"
        (self.folder / "disk.raw").write_bytes(raw)
        status, text = difctl("protect", self.folder / "disk.raw", path, "--force", "--block", size, *options)
        self.assertEqual((status, text), (0, ""))
        return path, bytearray(raw)

    def fails(self, call, *arguments):
        with self.assertRaises(nbd.Error) as caught:
            call(*arguments)
        self.assertEqual(caught.exception.errno, "EIO")

    def test_disk_behaves_like_its_model(self):
        """Unaligned requests of every kind, over every kind of image; afterwards the image is what difctl takes it for."""
        for size, crc, unwritten in (520, "t10", "zeros"), (4160, "crc32c", "zeros"), (4160, "t10", "error"):
            with self.subTest(seed=SEED, size=size, crc=crc, unwritten=unwritten):
                path, model = self.image(600, size, "--crc", crc, "--lba", 7)
                if unwritten == "zeros":
                    os.truncate(path, 900 * size)
                    model += bytes(300 * DATA[size])
                server = self.serve("file", path, block=DATA[size], crc=crc, lba=7, unwritten=unwritten)
                client = server.connect()
                self.assertEqual(client.get_size(), len(model))
                for _ in range(300):
                    offset = self.random.randrange(len(model))
                    count = min(self.random.choice((1, 511, 513, 4097, 70000, 1500000)), len(model) - offset)
                    kind = self.random.choice(("read", "read", "write", "write", "zero", "trim", "flush", "extents"))
                    fua = self.random.choice((0, nbd.CMD_FLAG_FUA))
                    if kind == "read":
                        self.assertTrue(client.pread(count, offset) == model[offset : offset + count], (offset, count))
                    elif kind == "write":
                        model[offset : offset + count] = self.random.randbytes(count)
                        client.pwrite(model[offset : offset + count], offset, fua)
                    elif kind == "zero":
                        model[offset : offset + count] = bytes(count)
                        client.zero(count, offset, self.random.choice((0, nbd.CMD_FLAG_NO_HOLE)) | fua)
                    elif kind == "trim" and client.can_trim():
                        client.trim(count, offset, fua)
                        first, end = -(-offset // DATA[size]) * DATA[size], (offset + count) // DATA[size] * DATA[size]
                        model[first:end] = bytes(max(end - first, 0))  # blocks in part stay as they are
                    elif kind == "flush":
                        client.flush()
                    elif kind == "extents":
                        self.check_extents(client, model, offset, count)
                self.assertTrue(client.pread(len(model), 0) == model)
                client.shutdown()
                server.end()
                status, text = difctl("verify", "--all", "--block", size, "--lba", 7, path)
                self.assertEqual(status, 0, text)
                if unwritten == "zeros":
                    self.assertEqual(difctl("strip", "--block", size, "--lba", 7, "--force", path, self.folder / "out")[0], 0)
                    self.assertTrue((self.folder / "out").read_bytes() == model)

    def check_extents(self, client, model, offset, count):
        at = offset
        def tell(_context, _offset, entries, _error):
            nonlocal at
            for length, kind in zip(entries[::2], entries[1::2]):
                self.assertTrue(kind == 0 or not any(model[at : at + length]), (at, length, kind))
                at += length
        client.block_status(count, offset, tell)
        self.assertGreater(at, offset)

    def test_holes_are_told_exactly(self):
        path = self.folder / "thin"
        with path.open("wb") as file:
            file.truncate(520 * 1024 * 1024)
            file.seek(520 * 512)  # a data page of the file, from the middle of block 511 on
        server = self.serve("file", path)
        client, found = server.connect(), []
        client.pwrite(bytes(range(256)) * 2, 512 * 512)
        client.block_status(1 << 20, 0, lambda _c, _o, entries, _e: found.extend(entries))
        page = os.stat(path).st_blksize
        first, end = 512 * 520 // page * page, -(-513 * 520 // page) * page  # of the pages with data
        self.assertEqual(found[:4], [first // 520 * 512, 3, (-(-end // 520) - first // 520) * 512, 0])

    def test_faults_under_it_are_errors_of_their_block(self):
        """Whatever a store may do to a block, its neighbours read on, nothing builds on it, and rewriting heals it."""
        faults = {
            "guard": lambda block: block[:512] + bytes([block[512] ^ 1]) + block[513:],
            "data": lambda block: bytes([block[0] ^ 0x80]) + block[1:],
            "LBA": lambda block: block[:516] + struct.pack(">I", 99) + block[520:],
            "no LBA": lambda block: block[:515] + b"\0" + struct.pack(">I", 99) + block[520:],
            "exempt": lambda block: block[:514] + b"\xff\xff" + block[516:],
            "no guard": lambda block: b"x" + block[1:514] + b"\x34" + block[515:],
            "version 0": lambda block: block[:514] + b"\0" + block[515:],
            "all ones": lambda block: b"\xff" * 520,
            "all zeros": lambda block: bytes(520),
            "another block": lambda block: None,
        }
        path, model = self.image(64 * len(faults))
        server = self.serve("file", path, unwritten="error", socket=self.folder / "socket", log=self.folder / "log")
        client = server.connect()
        client.pread(len(model), 0)
        with path.open("r+b") as file:
            for index, (name, spoil) in enumerate(faults.items()):
                block = 64 * index + 30
                file.seek(520 * block)
                spoilt = spoil(file.read(520))
                if spoilt is None:
                    file.seek(520 * (block + 1))
                    spoilt = file.read(520)
                file.seek(520 * block)
                file.write(spoilt)
        for index, name in enumerate(faults):
            with self.subTest(fault=name):
                start, bad = 64 * 512 * index, 64 * 512 * index + 30 * 512
                for _ in range(3):
                    self.fails(client.pread, 64 * 512, start)
                self.fails(client.pread, 1, bad + 511)
                self.fails(client.pwrite, b"part", bad + 510)
                self.fails(client.zero, 5, bad)
                for offset, count in (start, 30 * 512), (bad + 512, 33 * 512):
                    self.assertEqual(client.pread(count, offset), model[offset : offset + count])
                model[bad : bad + 512] = self.random.randbytes(512)
                client.pwrite(model[bad - 5 : bad + 517], bad - 5)
        self.assertEqual(client.pread(len(model), 0), model)
        told = difctl("attach", self.folder / "socket", "nbd")[1]
        for text, count in ("without a field", 6), ("a wrong LBA", 2), ("a wrong guard", 2), ("right again", 10):
            self.assertRegex(told, f"blocks? .*{text} +{count}\n")
        self.assertIn('dif_nbd_blocks_failed_total{kind="guard"} 2', difctl("attach", self.folder / "socket", "metrics")[1])
        client.shutdown()
        messages = server.end()
        log = (self.folder / "log").read_text()
        for text, number in (messages, 10), (log, 20):  # the log also tells of those that are written again
            self.assertEqual(len(re.findall(r"block \d+ \(LBA \d+, offset \d+ in the disk, \d+ in the image\)", text)), number)
        self.assertIn("block 158 (LBA 158, offset 80896 in the disk, 82160 in the image) has the LBA 99; field: crc ", log)

    def test_roll_out_serves_and_reports(self):
        path, model = self.image(8)
        with path.open("r+b") as file:
            file.seek(520 * 3)
            file.write(bytes([model[512 * 3] ^ 1]))
        model[512 * 3] ^= 1
        server = self.serve("file", path, **{"on-error": "report"})
        self.assertEqual(server.connect().pread(len(model), 0), model)
        self.assertIn("block 3 (LBA 3,", server.end())

    def test_overlapping_readers_and_writers_see_no_fault(self):
        path, model = self.image(256, 4160)
        server = self.serve("file", path, block=4096)
        stop, errors = time.monotonic() + float(os.environ.get("SECONDS", "2")), []

        def work(seed):
            source, client = random.Random(seed), server.connect()
            try:
                while time.monotonic() < stop:
                    offset, count = source.randrange(1 << 18), source.randrange(1, 1 << 17)
                    if seed % 2:
                        client.pwrite(bytes([seed]) * count, offset)
                    else:
                        client.pread(count, offset)
            except nbd.Error as error:
                errors.append(error)

        threads = [threading.Thread(target=work, args=(seed,)) for seed in range(6)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual((errors, server.end()), ([], ""))
        self.assertEqual(difctl("verify", "--all", "--block", 4160, path)[0], 0)

    def test_a_crash_is_mended_where_it_was_writing_and_nowhere_else(self):
        path, intent, blocks = self.folder / "thin", self.folder / "intent", 4 * 32768  # regions of 16 MiB
        with path.open("wb") as file:
            file.truncate(520 * blocks)
        options = dict(intent=intent, log=self.folder / "log")
        server = self.serve("file", path, **options)
        client = server.connect()
        for region in range(4):
            client.pwrite(b"clean" * 2048, 512 * 32768 * region)
        client.flush()
        client.shutdown()
        server.end()
        self.assertFalse(any(intent.read_bytes()[MARKS:]), "a clean stop leaves no mark")
        server = self.serve("file", path, **options)
        client = server.connect()
        client.pwrite(b"x" * 5120, 512 * (32768 - 4))  # into two regions
        self.assertEqual(intent.read_bytes()[MARKS:], b"\1\1\0\0")
        os.truncate(path, 520 * (blocks + 1))
        self.assertRaises(nbd.Error, server.connect)  # its marks are for the size that the image had
        os.truncate(path, 520 * blocks)
        server.end(signal.SIGKILL)
        with path.open("r+b") as file:
            for block in 5, 32768 + 2, 2 * 32768 + 5:  # the last one is no crash's work
                file.seek(520 * block)
                file.write(b"torn")
        self.assertEqual(difctl("verify", "--all", path)[0], 1)
        server = self.serve("file", path, "-r", **options)
        reader = server.connect()
        self.fails(reader.pread, 512, 512 * 5)
        reader.shutdown()
        server.end()
        server = self.serve("file", path, **options)
        client = server.connect()
        self.assertEqual(client.pread(8, 512 * 5)[:4], b"torn")
        self.assertEqual(client.pread(8, 512 * (32768 + 2))[:4], b"torn")
        self.fails(client.pread, 8, 512 * (2 * 32768 + 5))
        client.shutdown()
        server.end()
        log = (self.folder / "log").read_text()
        self.assertEqual(re.findall(r"block (\d+) \(.*; a crash may have torn it", log), ["5", "32770"])
        self.assertFalse(any(intent.read_bytes()[MARKS:]))

    def test_killed_while_writing_it_loses_no_block(self):
        path, intent = self.folder / "thin", self.folder / "intent"
        with path.open("wb") as file:
            file.truncate(4160 * 2048)
        for _ in range(int(os.environ.get("KILLS", "5"))):
            server = self.serve("file", path, block=4096, intent=intent)
            client = server.connect()
            self.assertEqual(len(client.pread(client.get_size(), 0)), 4096 * 2048)
            killer = threading.Timer(self.random.random() * 0.2, server.process.kill)
            killer.start()
            with contextlib.suppress(nbd.Error):
                while True:
                    client.pwrite(self.random.randbytes(1 << 20), self.random.randrange(7 << 20))
            killer.join()
            server.end()
        server = self.serve("file", path, block=4096, intent=intent)
        server.connect().pread(4096 * 2048, 0)
        server.end()
        self.assertEqual(difctl("verify", "--all", "--block", 4160, path)[0], 0)

    def test_what_it_refuses(self):
        path, _ = self.image(64, 520, "--lba", 5)
        raw = self.folder / "disk.raw"
        other = self.folder / "other"
        other.write_bytes(b"not mine" * 8)
        for parameters, words in (
            ({"block": 4096, "lba": 5}, r"blocks of 520 bytes with guard t10 and LBAs from 5; dif-block=512 fits"),
            ({"crc": "crc32c", "lba": 5}, r"dif-crc=t10 fits"),
            ({"lba": 6}, r"dif-lba=5 fits"),
            ({"lba": 5, "intent": other}, r"no write-intent file"),
            ({"lba": 5, "metrics": other}, r"no file of metrics"),
            ({"lba": 5, "log": path}, r"file and dif-log are the same file"),
            ({"block": 520}, r"dif-block=520: expected 512 or 4096"),
            ({"colour": 1}, r"dif-colour: the dif filter has no such parameter"),
            ({"log": ""}, r"dif-log: has an empty value"),
        ):
            with self.subTest(words):
                self.refused(words, "file", path, **parameters)
        self.refused("shows no fields", "file", raw)
        self.assertEqual(other.read_bytes(), b"not mine" * 8)
        self.refused("one dif filter a server", "file", path, filters=(FILTER, FILTER), lba=5)
        self.refused("engine crc16_t10dif answers", INTERPOSER)
        done = subprocess.run([DIFCTL, "verify", path], env={"LD_PRELOAD": INTERPOSER}, capture_output=True, text=True)
        self.assertEqual(done.returncode, 2)
        self.assertIn("engine crc16_t10dif answers", done.stderr)
        server = self.serve("file", path, lba=5, intent=self.folder / "intent")
        client = server.connect()
        self.assertEqual(difctl("relabel", path)[0], 2)
        (self.folder / "second").mkdir()
        for parameters, words in ({}, "is locked by another process"), ({"intent": self.folder / "intent"}, "is in use"):
            self.refused(words, "file", path, folder=self.folder / "second", lba=5, **parameters)
        client.pread(512, 0)
        os.truncate(path, 520 * 100)
        self.assertRaises(nbd.Error, server.connect)
        client.shutdown()
        self.assertIn("has changed its size from 33280 to 52000 bytes", server.end())

    def refused(self, words, *plugin, folder=None, **parameters):
        """By the server at its start, or by it to its first client."""
        server = Server(folder or self.folder, *plugin, wait=False, **parameters)
        end = time.monotonic() + 30
        while server.process.poll() is None and not server.listens() and time.monotonic() < end:
            time.sleep(0.01)
        if server.process.poll() is None:
            with self.assertRaises(nbd.Error):
                server.connect()
        self.assertRegex(server.end(), words)

    def test_what_an_operator_does(self):
        path, model = self.image(4096)
        with path.open("r+b") as file:
            file.seek(520 * 4000)
            file.write(bytes([model[512 * 4000] ^ 1]))
        socket, metrics = self.folder / "socket", self.folder / "metrics"
        server = self.serve("file", path, socket=socket, metrics=metrics, log=self.folder / "log")
        self.assertEqual(difctl("attach", socket, "scrub", "status")[1], "not scrubbing\n")
        self.assertRegex(difctl("attach", socket, "scrub", "start", "no")[1], "'no' is no rate")
        self.assertEqual(difctl("attach", socket, "scrub", "start", "100M"), (0, ""))
        end = time.monotonic() + 30
        while " 0 passes" in (text := difctl("attach", socket, "scrub", "status")[1]) or "block" not in text:
            self.assertLess(time.monotonic(), end, text)
        self.assertEqual(difctl("attach", socket, "scrub", "stop")[0], 0)
        self.assertRegex(difctl("attach", socket, "nbd")[1], r"known to be bad now +1\n  block 4000 \(LBA 4000,")
        for words in ("switch", "off"), ("level", "LUN", "0"), ("counters", "0"):
            self.assertEqual(difctl("attach", socket, "set", *words)[0], 0)
        client = server.connect()
        client.pwrite(model[:512], 512)  # neither switch nor level is the disk's
        self.fails(client.pread, 1, 512 * 4000)
        client.shutdown()
        server.end()
        self.assertIn("failed 1 (guard 1,", difctl("verify", "--all", path)[1])
        self.assertIn("dif_nbd_blocks_bad 1\n", metrics.read_text())
        log = (self.folder / "log").read_text()
        self.assertRegex(log, rf"set switch off: by user {os.getuid()}, process \d+\.")
        self.assertRegex(log, rf"scrub start: by user {os.getuid()}, process \d+")

    def test_scrub_starts_again_when_what_is_below_is_back(self):
        path, _ = self.image(64)
        socket, below = self.folder / "socket", self.folder / "below"
        below.mkdir()

        def scrub(until):
            self.assertEqual(difctl("attach", socket, "scrub", "start", "1M"), (0, ""))
            end = time.monotonic() + 30
            while not re.search(until, text := difctl("attach", socket, "scrub", "status")[1]):
                self.assertLess(time.monotonic(), end, text)

        store = Server(below, "file", path, filters=())
        self.addCleanup(lambda: store.end(signal.SIGKILL))
        self.serve("nbd", f"socket={store.path}", socket=socket)
        scrub("[1-9][0-9]* passes")
        store.end(signal.SIGKILL)  # with SIGTERM it would wait for its client
        scrub("stopped, ")
        store = Server(below, "file", path, filters=())
        passes = re.search(r"\d+ passes", difctl("attach", socket, "scrub", "status")[1])[0]
        scrub(rf"^scrubbing(?!.* {passes})")

    def test_clients_and_other_plugins(self):
        path, model = self.image(8192)
        server = self.serve("file", path)
        uri, out = f"nbd+unix:///?socket={server.path}", self.folder / "out"
        for words in ["qemu-img", "compare", "-f", "raw", "-F", "raw", uri, self.folder / "disk.raw"], ["nbdcopy", uri, out]:
            subprocess.run(words, check=True, capture_output=True)
        self.assertEqual(out.read_bytes(), model)
        (self.folder / "back").mkdir()
        back = Server(self.folder / "back", "memory", "1M", filters=())
        self.addCleanup(back.end, signal.SIGKILL)
        server.end()
        server = self.serve("nbd", f"socket={back.path}", block=4096)
        client, data = server.connect(), self.random.randbytes(999 * 999)
        client.pwrite(data, 999)
        self.assertEqual(client.pread(len(data), 999), data)
        client.shutdown()
        server.end()
        server = self.serve("eval", "get_size=echo 520000", "pread=head -c $3 /dev/zero", "can_zero=exit 0", "zero=exit 0",
                            "can_write=exit 0", "pwrite=echo ENOTSUP no >&2; exit 1")
        self.fails(server.connect().zero, 5000, 100)  # nbdkit stops if an answer is ENOTSUP


if __name__ == "__main__":
    unittest.main()
