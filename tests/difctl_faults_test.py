"""What difctl leaves when things go wrong: python3 difctl_faults_test.py DIFCTL FAULT_SHIM [unittest arguments]."""
import contextlib, errno, fcntl, os, pathlib, random, re, resource, signal, struct, subprocess, sys, time, unittest
from difctl_tool import DIFCTL, SANITIZED, TSAN, ToolTest

SHIM = pathlib.Path(sys.argv.pop(1)).resolve()
PRELOAD = {"LD_PRELOAD": SHIM.name, "LD_LIBRARY_PATH": str(SHIM.parent)}  # a blank would end a preloaded path
SLOWER = 4 if SANITIZED else 1  # and so tried less
os.environ["ASAN_OPTIONS"] = "verify_asan_link_order=0"
FAULTS = errno.EIO, errno.ENOSPC, errno.EINTR, 0  # 0: half the bytes
random.seed(8)
RAW = random.randbytes(4160 * 512)  # requests of 2048 blocks of 520
F_OFD_SETLK = 37


def difctl(*args, **kwargs):
    return subprocess.run([DIFCTL, *args], **{"capture_output": True, "timeout": 60, **kwargs})


def made(command, content):
    """What a command that goes well makes of `content`, in a new file or in place."""
    pathlib.Path("before").write_bytes(content)
    in_place = command.split()[0] in ("relabel", "convert", "inject")
    done = difctl(*command.split(), "before", *([] if in_place else ["--force", "after"]))
    assert done.returncode == 0, done
    result = pathlib.Path("before" if in_place else "after").read_bytes()
    os.remove("before"), in_place or os.remove("after")
    return result


class FaultsTest(ToolTest):
    def setUp(self):
        super().setUp()
        os.chmod(".", 0o711)
        os.mkdir("work")
        self.enterContext(contextlib.chdir("work"))  # the shim's count lies above, out of what the tests list
        self.image = made("protect", RAW)
        self.relabelled = made("relabel --lba 0x11111111 --crc crc32c", self.image)

    def ends(self, *args, status, says="", **kwargs):
        done = difctl(*args, **kwargs)
        self.assertEqual(done.returncode, status, (args, done))
        self.assertRegex(done.stderr.decode(), rf"\A(?s:{says})\Z")

    def is_mixture(self, old, new):
        """The image, every block of which must be as it was or as it is to be."""
        now = pathlib.Path("img").read_bytes()
        self.assertEqual(len(now), len(old))
        for at in range(0, len(now), 520):
            self.assertIn(now[at : at + 520], (old[at : at + 520], new[at : at + 520]), f"block {at // 520}")
        return now

    def failing(self, command, prepare, check, **settings):
        """Runs `command` with every n-th call failing, for many n and all faults, and check(what it says, is it done)."""
        for fault in FAULTS:
            every, calls = 0, 0  # first a run in which none fails
            while every <= calls:
                prepare()
                env = {**os.environ, **PRELOAD, "FAULT_EVERY": str(every), "FAULT_ERRNO": str(fault),
                       "FAULT_COUNT": "../count", **settings}
                with self.subTest(command, fault=fault, every=every, **settings):
                    done = difctl(*command.split(), env=env)
                    said = done.stderr.decode()
                    goes_on = not every or fault in (errno.EINTR, 0) and not re.search("its name|be mapped", said)
                    self.assertEqual(done.returncode, 0 if goes_on else 2, said)
                    check(said, done.returncode == 0)
                calls = calls or int(pathlib.Path("../count").read_text())
                every += 2 if not every and fault in (errno.EINTR, 0) else 1 + min(calls // (30 // SLOWER), (calls - every) // 8)

    def test_destinations_are_whole_or_as_before(self):
        os.mkdir("d"), os.chdir("d")
        for command, source, old, named in (
            ("protect", RAW, None, "0"), ("protect", RAW, b"old", "0"), ("protect", RAW, None, "1"),
            ("protect", RAW, b"old", "1"), ("strip", self.image, b"old", "0"), ("fold", self.image, None, "0"),
        ):
            expected, heard = made(command, source), set()

            def prepare():
                self.write("src", source), self.write("new", old or b"")
                old or os.remove("new")

            def check(said, is_done):
                complete = is_done or "new: is complete, but its name may not outlive a power failure" in said
                new = pathlib.Path("new").read_bytes() if os.path.exists("new") else None
                self.assertTrue(new == (expected if complete else old), said)
                self.assertLessEqual(set(os.listdir(".")), {"src", "new"})
                heard.add(complete and not is_done)

            self.failing(f"{command} --force src new", prepare, check, FAULT_NAMED=named)
            self.assertIn(True, heard)  # the directory is brought to stable storage, too

    def test_blocks_are_old_or_new(self):
        few, relabel, heard = 40 * 520, "relabel --force --lba 7 --crc crc32c", set()
        gap = slice(20 * 520, 21 * 520)  # a block that is right already parts the writes
        for command, old in ((relabel, self.image[:few]), ("convert --lba 0x11111111", self.relabelled[:few]),
                             (relabel, self.image[: gap.start] + made(relabel, self.image[:few])[gap] +
                              self.image[gap.stop : few])):
            new = made(command, old)

            def check(said, is_done):
                now = self.is_mixture(old, new)
                self.assertTrue(now == new or not is_done and "before block 40 of 40 are done" not in said, said)
                self.assertTrue(now == old or "nothing is changed" not in said, said)
                self.assertTrue(now in (old, new) or "some of those behind them may be" in said, said)
                heard.add(now in (old, new))

            self.failing(command + " img", lambda: self.write("img", old), check)
        self.assertIn(False, heard)

    def test_killed(self):
        self.write("src", RAW)
        for signal_number in [signal.SIGKILL, signal.SIGQUIT, signal.SIGXCPU, signal.SIGTERM] * (4 // SLOWER):
            self.write("img", self.image)
            for command in "protect src new", "relabel --force --lba 0x11111111 --crc crc32c img":
                with subprocess.Popen([DIFCTL, *command.split()], stderr=subprocess.DEVNULL,
                                      preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, (0, 0))) as tool:
                    time.sleep(random.random() * 0.02 * SLOWER)
                    tool.send_signal(signal_number)
            self.is_mixture(self.image, self.relabelled)
            if os.path.exists("new"):
                self.assertTrue(pathlib.Path("new").read_bytes() == self.image), os.remove("new")
            self.assertEqual(sorted(os.listdir(".")), ["img", "src"])

    def test_locks(self):
        refused = "difctl: img: is locked by another process, such as another difctl or a virtual machine .*\n"
        for _ in range(10 // SLOWER):
            self.write("img", self.image)
            both = [subprocess.Popen([DIFCTL, "relabel", "--force", *field, "img"], stderr=subprocess.PIPE)
                    for field in (["--crc", "crc32c"], ["--lba", "0x11111111"])]
            said = [tool.communicate()[1].decode() for tool in both]
            for text in said:
                self.assertRegex(text, rf"\A({refused})?\Z")
            if said == ["", ""]:
                self.assertTrue(pathlib.Path("img").read_bytes() == self.relabelled)
        for kind, reading in ((fcntl.F_RDLCK, {"status": 0}), (fcntl.F_WRLCK, {"status": 2, "says": refused})):
            self.write("img", self.image)
            with open("img", "r+b") as image:
                fcntl.fcntl(image, F_OFD_SETLK, struct.pack("hhqqi4x", kind, os.SEEK_SET, 103, 1, 0))
                self.ends("relabel", "--force", "--lba", "1", "img", status=2, says=refused)
                self.ends("verify", "img", **reading), self.ends("strip", "img", "new", **reading)

    def test_data_written_meanwhile(self):
        raw = bytearray(RAW)
        self.write("img", self.image)
        tool = subprocess.Popen([DIFCTL, "relabel", "--force", "--lba", "5", "img"])
        with open("img", "r+b") as image:
            while tool.poll() is None:
                block, content = random.randrange(4160), random.randbytes(512)
                os.pwrite(image.fileno(), content, block * 520)
                raw[block * 512 : block * 512 + 512] = content
        now = pathlib.Path("img").read_bytes()
        self.assertTrue(b"".join(now[at : at + 512] for at in range(0, len(now), 520)) == raw)

    def test_names_and_lengths_that_change(self):
        cut = 0
        for delay in range(10):
            self.write("img", self.image), self.write("another", self.image)
            with subprocess.Popen([DIFCTL, "relabel", "--lba", "0x11111111", "--crc", "crc32c", "img"],
                                  stderr=subprocess.PIPE) as tool:
                locks = pathlib.Path("/proc/locks")
                inode = f":{os.stat('img').st_ino} "
                while tool.poll() is None and inode not in locks.read_text():
                    time.sleep(0.001)
                time.sleep(delay * 0.002 * SLOWER)
                os.rename("img", "img.bak"), os.rename("another", "img")
                os.truncate("img.bak", 999 * 520)
                cut += b"changed its length" in tool.stderr.read()
            self.assertTrue(pathlib.Path("img").read_bytes() == self.image)
            self.assertEqual(os.path.getsize("img.bak"), 999 * 520)
        self.assertGreater(cut, 0)

    def test_what_the_image_is_not(self):
        large, zeros = made("protect --block 4160 --lba 9", RAW), bytes(520 * 8)
        blocks = [self.image[at : at + 520] for at in range(0, len(self.image), 520)]
        junk = b"".join(random.randbytes(520) if index % 5 else block for index, block in enumerate(blocks))
        exempt = b"".join(block[:512] + b"\xFF" * 8 for block in blocks)
        lbas = b"".join(block[:512] + b"xyz" + block[515:] for block in blocks)  # of which nothing else is right
        unguarded = made("relabel --force --version-only --crc crc32c", made("inject --at 0,4160 --bst", self.image))
        thin = bytes(520 << 16) + self.image[: 520 * 8] + bytes(520 << 16)
        nested = made("protect --block 4160", self.image + bytes(4096 - len(self.image) % 4096))
        alike = made("protect --block 4160", b"\0\0\x34\0" * 10240)  # with data that looks like fields of 520, too
        for image in self.image, made("protect --no-lba", RAW), junk, exempt, lbas, unguarded, thin, large, nested, alike:
            fitting, wrong = ("4160", "520") if image in (large, nested, alike) else ("520", "4160")
            for command in "relabel --lba 1", "convert", "inject --at 0 --bst":
                for force in [], ["--force"]:
                    says = f"difctl: img: --block {wrong} contradicts .* {fitting} bytes .*; --block {fitting} fits\n"
                    self.ends(*command.split(), *force, "--block", wrong, self.write("img", image), status=2, says=says)
                    self.assertTrue(pathlib.Path("img").read_bytes() == image)
            self.ends("relabel", "--force", "--lba", "1", "--block", fitting, "img", status=0)
        self.ends("relabel", "--lba", "1", "--first-lba", "0", self.write("img", large), status=2,
                  says=".*--first-lba 0 contradicts .* guard t10 and LBAs from 9; --first-lba 9 fits.*",
                  env={**os.environ, **PRELOAD, "FAULT_EVERY": "1", "FAULT_ERRNO": "0"})
        self.ends("relabel", "--version-only", "--crc", "crc32c", self.write("img", self.image), status=2,
                  says=".*--version-only with --crc crc32c contradicts .*; --crc t10 fits\n")
        part = made("relabel --lba 5 --at 2000,1001", self.image)
        for lba in "0", "5":  # neither fits all: the check tells where
            self.ends("convert", "--first-lba", lba, self.write("img", part), status=1,
                      says=".*LBA error.*looks like blocks of 520 bytes with guard t10 and LBAs from 0; nothing is.*")
        for image, *force, status, says in ((zeros, 2, ".*nothing but zeros.*"), (zeros, "--force", 0, ""),
                                            (RAW[: 520 * 999], "--force", 2, ".*shows no fields.*"),
                                            (RAW[:515] + b"\2" + RAW[516:4160], "--force", 2, ".*shows no fields.*")):
            self.ends("relabel", "--lba", "1", *force, self.write("img", image), status=status, says=says)
            self.assertEqual(pathlib.Path("img").read_bytes() == image, status == 2)

    def test_refused_before_anything_is_done(self):
        self.write("img", self.image), self.write("note", b"# HELP of mine\n"), os.symlink("nowhere", "link")
        fields = "--set-lba", "--block", "--crc", "--first-lba"
        for words, says in (
            *((["relabel", "img", "--version-only", name, ""], name + ": has an empty value") for name in fields),
            *((["relabel", "img", name + "=", "--version-only"], name + ": has an empty value") for name in fields),
            (["strip", "img", ""], "DST: has an empty value"), (["verify", ""], "IMG: has an empty value"),
            (["verify", "img", "--entry", "18446744073709551096"], "--entry: '18446744073709551096' is not a number"),
            (["verify", "img", "show", "img", "--at", "1"], "not expected: .*show"),
            (["verify", "--metrics", "img", "img"], "img: exists already; only a file that --metrics has written"),
            (["verify", "--metrics", "note", "img"], "note: exists already; only a file that --metrics has written"),
            (["strip", "img", "new/"], "new/: ends in '/'"), (["strip", "img", "n" * 300], "n: cannot be written"),
            (["strip", "--force", "img", "link"], "link: is a symbolic link that leads nowhere"),
            (["verify", "a\x1b[2J\nb\x7F\x9B"],
             r"difctl: a\\x1b\[2J\\x0ab\\x7f\\xc2\\x9b: cannot open: No such file"),
            (["verify", "img", "\x1F"], r"not expected: \\x1f"),
            (["attach", "nowhere", "--", "--x="], "nowhere: cannot run a command through this socket: No such file"),
        ):
            with self.subTest(words):
                self.ends(*words, status=2, says=f"[^\n]*{says}[^\n]*\n")
                self.assertEqual(sorted(os.listdir(".")), ["img", "link", "note"])
                self.assertTrue(pathlib.Path("img").read_bytes() == self.image)
                self.assertEqual(pathlib.Path("note").read_bytes(), b"# HELP of mine\n")

    def test_rare_answers_of_the_system(self):
        self.write("src", RAW)
        for named, injected, status, says in (
            ("1", "renameat2:error=EEXIST", 2, ["new: has appeared meanwhile and is left as it is; --force replaces it\n"]),
            ("1", "renameat2:error=ENOSYS", 0, ""), ("0", "syncfs:error=EINVAL", 0, ""),
            ("0", "syncfs:error=EIO", 2, ["new: is complete, but its name may not outlive a power failure: cannot bring the "
                                          "directory to stable storage: Input/output error\n"]),
        ):
            os.chmod(self.write("calls", b""), 0o666), os.chmod(".", 0o333)  # where a user can open no directory
            strace = ["strace", "-f", "-qq", "-o", "calls", "-E", f"LD_PRELOAD={SHIM}", "-E", f"FAULT_NAMED={named}", "-E",
                      "ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0", "-e", "inject=" + injected]
            self.run_tool("protect", "src", "new", under=strace, status=status, says=says, input=None,
                          user=6 if os.getuid() == 0 else None)
            os.chmod(".", 0o777)
            self.assertEqual(set(os.listdir(".")), {"src", "calls"} if "EEXIST" in injected else {"src", "calls", "new"})
            self.assertIn("RENAME_NOREPLACE" if "rename" in injected else "syncfs", pathlib.Path("calls").read_text())
            pathlib.Path("new").unlink(missing_ok=True)
        if TSAN:  # which has a thread of its own
            return
        strace = ["strace", "-f", "-qq", "-o", "calls", "-E", "ASAN_OPTIONS=detect_leaks=0", "-e",
                  "inject=clone,clone3:error=EAGAIN:when=2+", "-e"]  # one thread does it all, whose calls can be counted
        for command, image, injected, status, says in (
            ("relabel --lba 1", self.image, "fcntl:error=ENOLCK", 2,
             ["img: cannot be locked against other processes and is left as it is: No locks available\n"]),
            ("verify", self.image, "fcntl:error=ENOLCK", 0, ""), ("relabel --lba 1 --no-lba", bytes(520 << 16) +
             self.image[:4160] + bytes(520 << 16), "lseek:error=EINVAL:when=1", 0, ""),
            ("inject --force --at 3000 --bst", self.image, "lseek:retval=2163720:when=2", 2,  # behind the last request
             ["img: changed its length meanwhile from 2163200 to 2163720 bytes; the blocks before block 3001 of 4160 are "
              "done\n"]),
        ):
            self.write("img", image)
            self.run_tool(*command.split(), "img", under=[*strace, "inject=" + injected], status=status, says=says)
        strace += ["inject=fsync:delay_enter=3s:when=2", "-D", DIFCTL]  # of the directory
        with subprocess.Popen([*strace, "protect", "src", "new"], stderr=subprocess.PIPE) as tool:
            while not os.path.exists("new"):
                time.sleep(0.01)
            tool.terminate()
            self.assertIn(b"difctl: interrupted by SIGTERM; new is complete\n", tool.stderr.read())

    def test_nobody_may_read_more(self):
        self.write("img", self.image)
        os.umask(0o022)
        for source, replaced, result in ((0o600, None, 0o600), (0o644, None, 0o644), (0o640, 0o604, 0o600),
                                         (0o644, 0o600, 0o600), (0o666, 0o664, 0o664), (0o640, 0o666, 0o640)):
            os.chmod("img", source)
            if replaced:
                os.chmod(self.write("new", b""), replaced)
            self.ends("strip", "--force", "img", "new", status=0)
            self.assertEqual(os.stat("new").st_mode & 0o777, result, (source, replaced))
            os.remove("new")
        os.chmod("img", 0o600)
        entries = (1, 6, -1), (2, 4, 7), (4, 0, -1), (16, 4, -1), (32, 0, -1)  # user 7 may read it; its group may not
        access = struct.pack("<I", 2) + b"".join(struct.pack("<HHi", *entry) for entry in entries)
        os.mkdir("d"), self.write("open", self.image)
        with contextlib.suppress(OSError):  # no such lists here
            os.setxattr("img", "system.posix_acl_access", access)
            os.setxattr("d", "system.posix_acl_default", access)
        for command, source, new, umask, result in (("fold", "img", "new", 0o022, 0o600),
                                                    ("strip", "open", "d/new", 0o022, 0o600),
                                                    ("strip", "open", "new", 0o027, 0o640),
                                                    ("strip --force", "open", "img", 0o022, 0o600),
                                                    ("protect --block 4160", "d/new", "new", 0o022, 0o600)):
            os.umask(umask)
            self.ends(*command.split(), source, new, status=0)
            self.assertEqual(os.stat(new).st_mode & 0o770, result, (source, new))
            new == "new" and os.remove(new)
        os.remove("d/new"), os.rmdir("d"), os.remove("open"), os.remove("img"), self.write("img", self.image)
        for named in "0", "1":
            env = {**os.environ, **PRELOAD, "FAULT_NAMED": named}
            with subprocess.Popen([DIFCTL, "protect", "-", "new"], env=env, stdin=subprocess.PIPE) as tool:
                tool.stdin.write(RAW), tool.stdin.flush()
                files = [os.stat(file).st_mode for file in pathlib.Path(f"/proc/{tool.pid}/fd").iterdir()]
                self.assertIn(0o100600, files)  # until it is complete
                tool.terminate(), tool.wait()
            self.assertEqual(os.listdir("."), ["img"])
        if os.getuid() == 0:
            for source, owner, group, mode, result in (
                (0o640, 7, 8, 0o660, (7, 8, 0o640)), (0o640, 7, 9, 0o660, (7, 9, 0o600)),
                (0o604, 7, 9, 0o666, (7, 9, 0o600)), (0o640, 6, 8, 0o644, (0, 8, 0o640)),
                (0o644, 6, 8, 0o644, (6, 8, 0o644)),
            ):
                os.chown("img", 7, 8), os.chmod("img", source)
                os.chown(self.write("new", b""), owner, group), os.chmod("new", mode)
                self.ends("strip", "--force", "img", "new", status=0)
                new = os.stat("new")
                self.assertEqual((new.st_uid, new.st_gid, new.st_mode & 0o777), result)
            os.chmod("img", 0o644), os.chmod(".", 0o1777), os.chown(".", 9, 9), os.chown("new", 7, 8)
            self.ends("strip", "--force", "img", "new", status=2, user=6, says="difctl: new: cannot be replaced: it "
                      "belongs to another user, in a directory where only they may\n")
            for folder, owner, user in (0o777, 9, 6), (0o1777, 6, 6), (0o1777, 9, 0):
                os.chmod(".", folder), os.chown(".", owner, owner), os.chown("new", 7, 8)
                self.ends("strip", "--force", "img", "new", status=0, user=user)

if __name__ == "__main__":
    unittest.main()
