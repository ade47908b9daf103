"""What libdif.so shows to a loader, and where its hot routines lie: symbols_test.py LIBDIF_SO [--sanitized]."""
import pathlib, re, subprocess, sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
LIBC = set("malloc free strcmp raise exit memset memcpy".split())  # the last two as the compiler pleases
WEAK = set("__gmon_start__ __cxa_finalize _ITM_registerTMCloneTable _ITM_deregisterTMCloneTable".split())
SANITIZER = re.compile(r"_*(?:odr_asan|asan|ubsan|tsan|sanitizer|start_asan|stop_asan)[_.]")
# The routines of the data path that must lie together; those marked in the sources beyond them are checked as well.
HOT = {
    "dif_Check.text": """checkDifInBlocks initDifCheckResults checkDifVerZero checkDifInSgl getDifOn isDifDisable
        isVerifyPointOn tryCheckDifAppAndSetResult tryCheckDifIntegrity isDifLbaCorrect isDifCrcCorrect""",
    "dif_Insert.text": """insertDif insertDifInBlocks insertDifInOneBlock replaceDifInBlocks replaceDifInSgl
        getStartSglByOffset getStartSglByOffsetWithReturn""",
}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def found(pattern, *globs):
    """What `pattern` finds at the start of the lines of the files."""
    texts = (path.read_text() for glob in globs for path in sorted(ROOT.glob(glob)))
    return [match for text in texts for match in re.findall("^" + pattern, text, re.MULTILINE)]


def main():
    library, sanitized = sys.argv[1], "--sanitized" in sys.argv[2:]
    errors = []

    def expect(condition, message):
        if not condition:
            errors.append(message)

    dynamic = [line.split()[-2:] for line in output("nm", "-D", "--without-symbol-versions", library).splitlines()]
    names = {name: kind for kind, name in dynamic if not SANITIZER.match(name)}
    declared = set(found(r"DIF_API [^;(\[]*?(\w+)[;(\[]", "include/dif/*.h"))
    exported = {name for name, kind in names.items() if kind not in "Uw"}
    expect(declared == exported, f"exports: missing {declared - exported}, in no header {exported - declared}")
    platform = set(found(r"[a-z]\w* [\w *]*?(\w+)\(", "platform/*.h"))
    foreign = set(names) - exported - platform - LIBC - WEAK
    expect(not foreign, f"undefined symbols that nobody has promised: {foreign}")

    entries = re.findall(r"\((NEEDED|SONAME)\).*\[(.*)\]", output("readelf", "-dW", library))
    expect(sanitized or entries == [("NEEDED", "libc.so.6"), ("SONAME", "libdif.so.1")], f"dynamic section: {entries}")

    marked = {name: f"dif_{section.capitalize()}.text" for section, name in
              found(r"(?:static )?DIF_(CHECK|INSERT)_(?:TEXT|HELPER) [^;(]*?([\w:]+)\(", "src/**/*.h", "src/**/*.cpp")}
    for section, routines in HOT.items():
        for routine in routines.split():
            expect(marked.get(routine) == section, f"{routine} is not marked for {section}")
    # The functions with a symbol: a helper may have none, inlined wherever it is called. What a routine does to write a
    # message may be a closure, or a part that the compiler split off, of its own; the closure lies with the cold code.
    functions = re.findall(r"^[0-9a-f]+ .{6}F (\S+)\s+[0-9a-f]+ (?:\.hidden )?\s*([\w:~]+)(?!.*::\{lambda)",
                           output("objdump", "-tC", library), re.MULTILINE)
    for section, symbol in functions:
        routine = "::".join(symbol.split("::")[-2:])
        expected = marked.get(routine, marked.get(symbol.split("::")[-1]))
        expect(expected in (None, section), f"{symbol} lies in {section}, not in {expected}")
        expect(expected or symbol not in declared or section == ".text", f"{symbol} lies in {section} without a mark")
    expect({"checkDifInBlocks", "insertDifInBlocks"} <= {symbol for _, symbol in functions}, "no table of symbols")

    return "\n".join(f"{library}: {error}" for error in errors) or None


sys.exit(main())
