"""How an optimised build is hardened, read off its binaries: hardening_test.py LIBDIF LIBDIF_HOST DIFCTL."""
import re, subprocess, sys


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def missing(binary, is_host, is_tool):
    """What `binary` lacks."""
    segments, dynamic, notes = (output("readelf", option, binary) for option in ("-lW", "-dW", "-nW"))
    flags = " ".join(re.findall(r"\(FLAGS(?:_1)?\)(.*)", dynamic)).split()
    symbols = output("nm", "-D", "--without-symbol-versions", binary)
    code = output("objdump", "-d", "--no-show-raw-insn", binary)
    first_instructions = dict(re.findall(r"^[0-9a-f]+ <(\w+)>:\n.*?\t(\w+)", code, re.MULTILINE))
    entries = set(re.findall(r" T (\w+)", symbols)) | ({"main"} if is_tool else set())

    if not re.search(r"GNU_STACK .* RW  ", segments):
        yield "a stack without code"
    if re.search(r"LOAD .* RWE ", segments):
        yield "segments that are written or run, not both"
    if "GNU_RELRO" not in segments or "BIND_NOW" not in flags or "TEXTREL" in dynamic:
        yield "relocations that are done, and read-only, before the first call"
    if "SHSTK" not in notes:
        yield "the mark for a shadow stack"
    if without := [name for name in entries if first_instructions[name] != "endbr64"]:
        yield f"landing pads in {without}"
    if is_tool and "PIE" not in flags:
        yield "a position-independent program"
    if is_host and "NODELETE" not in flags:
        yield "protection from being unloaded"
    if (is_host or is_tool) != ("__stack_chk_fail" in symbols):
        yield "stack protection" if is_host or is_tool else "freedom from libc's stack protection"
    if is_host and not re.search(r"U __\w+_chk$", symbols, re.MULTILINE):  # clang proves the tool's calls to be right
        yield "checked calls of libc"


lacking = [f"{binary}: lacks {what}" for place, binary in enumerate(sys.argv[1:], -1)
           for what in missing(binary, is_host=place == 0, is_tool=place == 1)]
sys.exit("\n".join(lacking) or None)
