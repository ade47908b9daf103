"""What libdif.so shows to a loader: its exports, its needs, and where its hot routines lie.

usage: symbols_test.py LIBDIF_SO [--sanitized]
"""
import re
import subprocess
import sys

EXPORTS = set("""
    difModuleInit difModuleExit setDifOn getDifOn isDifDisable setSysDifCrcVersion getSysDifCrcVersion setDifRepairType
    getDifRepairType setDifAllConfig setDifLbaFast g_baseServiceIntfRely
    calcT10DifCrcByTable _cpu_has_sse3_clmul crc16T10Dif setCrc16Func initCrc16T10Func
    insertDif replaceDif insertDifInBlocks insertDifInOneBlock replaceDifInBlocks
    initVerifyPoint setSysDifVerifyLevel setDifVerifyLevelByMid getDifVerifyLevelByMid difRegistVerifyPoint
    difVerifyMsgGetByMid difVerifyStatisticInit difVerifyStatisticAdd difVerifyStatisticGet difVerifyStatisticClean
    difStatisticInit difStatisticExit g_verifyPointMsg g_difModuleName g_midDescription g_levelDescription
    checkDif checkDifParamCheck initDifCheckResults checkDifInBlocks checkDifVerZero
    noDifBlockAllZero noDifZeroDataCheckInBlocks noDifZeroDataCheck noDifSetCheckResult noDifUnreference noDifUnreference1
    injectDif injectDifInBlocks injectDifInOneBlock isDifEvictable getDifLba isDifDataAllZero clearDifVersion
    trans2LSectorDif insertDifInSgl replaceDifInSgl injectDifInSgl checkDifInSgl checkDifInSglInputCheck
    noDifZeroDataCheckInSgl noDifSetCheckResultInSgl isDifEvictableInSgl checkDifInSglWithErrorReturn
    checkDifInSglWithErrRetInputCheck checkDifInSglWithStdT10
    initDifDiagnoseModule exitDifDiagnoseModule diagnoseDoDifCmd cliDoDifCmd diagnoseDoDifHelp cliDoDifHelp g_difArray
    g_difArrayForCli testCRCPerf
""".split())
PLATFORM = set("""
    hostlog hostlog_standard hostlog_level_check lookupIntfMethod osal_get_jiffies osal_time_getnanosec osal_crc32c
    osal_crc32cContinue osal_pid_set_name strncpy_s crc16_t10dif
    DBG_RegCmd DBG_RegCmdToCLI DBG_UnRegCmd DBG_UnRegCmdToCLI DBG_ShowUsageAndErrMsg DBG_Print
""".split())
# Hot sections: the exported routines that must lie there, and the internal ones that must if they are not inlined away.
SECTIONS = {
    "dif_Check.text": ({"checkDifInBlocks", "initDifCheckResults", "checkDifVerZero", "checkDifInSgl", "getDifOn",
                         "isDifDisable"},
                       {"isVerifyPointOn", "tryCheckDifAppAndSetResult", "tryCheckDifIntegrity", "isDifLbaCorrect",
                        "isDifCrcCorrect"}),
    "dif_Insert.text": ({"insertDif", "insertDifInBlocks", "insertDifInOneBlock", "replaceDifInBlocks", "replaceDifInSgl"},
                        {"getStartSglByOffset", "getStartSglByOffsetWithReturn"}),
}
SANITIZER = re.compile(r"_*(?:odr_asan|asan|ubsan|tsan|sanitizer|start_asan|stop_asan)[_.]")


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def main():
    library, sanitized = sys.argv[1], "--sanitized" in sys.argv[2:]
    errors = []

    def expect(condition, message):
        if not condition:
            errors.append(message)

    dynamic = [line.split() for line in output("nm", "-D", library).splitlines()]
    names = {fields[-1]: fields[-2] for fields in dynamic if not SANITIZER.match(fields[-1])}
    exported = {name for name, kind in names.items() if kind not in "Uw"}
    expect(exported == EXPORTS, f"exports: missing {EXPORTS - exported}, unexpected {exported - EXPORTS}")
    # Undefined names are libc's, which carry its version, weak hooks of the compiler's start code, or the platform's.
    foreign = {name for name, kind in names.items() if kind == "U" and "@GLIBC_" not in name} - PLATFORM
    expect(not foreign, f"undefined symbols that no host supplies: {foreign}")

    entries = dict.fromkeys(re.findall(r"\((NEEDED|SONAME)\).*\[(.*)\]", output("readelf", "-dW", library)))
    needed = {name for tag, name in entries if tag == "NEEDED"}
    expect(sanitized or needed == {"libc.so.6"}, f"needed libraries: {needed}")
    expect(any(tag == "SONAME" for tag, _ in entries), "no SONAME")

    # Functions by section: the base name of a C++ symbol or of a part that the compiler split off is the routine's. What
    # a routine does to write a message is a closure of its own, which lies with the cold code.
    placed = {}
    for line in output("objdump", "-tC", library).splitlines():
        match = re.match(r"[0-9a-f]+ .{6}F (\S+)\s+[0-9a-f]+ (?:\.hidden )?(.*)", line)
        if match and "::{lambda" not in match[2]:
            routine = re.sub(r"\(.*", "", match[2]).split("::")[-1].split(".")[0].strip()
            placed.setdefault(routine, set()).add((match[1], match[2]))
    for section, (required, internal) in SECTIONS.items():
        for routine in required | internal:
            places = placed.get(routine, set())
            expect(places or routine in internal, f"{routine} does not exist")
            for where, symbol in places:
                expect(where == section, f"{symbol.strip()} lies in {where}, not in {section}")
        for routine in EXPORTS - required:
            expect(all(where != section for where, _ in placed.get(routine, ())), f"{routine} lies in {section}")

    for error in errors:
        print(f"{library}: {error}", file=sys.stderr)
    return 1 if errors else 0


sys.exit(main())
