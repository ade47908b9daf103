/*
 * Trials by the fuzzer's choice, and single calls of every operation, malformed lists and refused arguments included,
 * under a host that says go on after every assertion.
 */
#include "fake_host.h"
#include "trial.h"

#include <fuzzer/FuzzedDataProvider.h>

namespace {

/* Where the blocks of a range start in the bytes of a chain, whatever its entries' lengths. */
std::vector<size_t> blockStarts(const Lengths &lengths, size_t offset, uint32_t count, uint32_t blockSize) {
    std::vector<size_t> starts;
    size_t begin = 0;
    for (const auto &node : lengths) {
        for (const uint32_t length : node) {
            for (size_t at = std::max(begin, offset); at + blockSize <= begin + length; at += blockSize)
                if (starts.size() < count)
                    starts.push_back(at);
            begin += length;
        }
    }
    return starts;
}

/* One call, which may change the DIF areas of the range's blocks and nothing else. */
void callOnce(Random &random) {
    Trial trial(random);
    const DifTypeInfo &info = trial.blocks.info;
    for (auto &node : trial.lengths) {
        if (random.oneIn(9))
            node.clear();
        for (uint32_t &length : node)
            length = random.oneIn(5) ? random.from(0, length) : length;
    }
    const uint32_t offset = random.of({trial.start(), trial.start(), trial.start(), random.from(0, 9999), ~0u});
    const uint32_t sectors = random.oneIn(9) ? random.from(0, ~0u - 1) : trial.sectors;
    const auto starts = blockStarts(trial.lengths, offset, sectors >> info.sectorShift, info.blockSize);
    Chain chain(trial.lengths, trial.blocks.bytes, random.from(0, 7));
    std::vector<uint8_t> before = chain.bytes();
    std::vector<uint32_t> bitmap((starts.size() + 31) / 32);
    const uint32_t type = random.oneIn(9) ? random.of({4u, 0x80000000u}) : info.sectorShift / 3 * 2;
    DifOpParam op{type + random.from(0, 1), random.from(0, ~0u - 1), trial.lba,
                  random.oneIn(2) ? bitmap.data() : nullptr};
    DifInjectParam inject{op.type, op.ctrlFlag, trial.lba, 0x1234, 0x1F};
    Check check(random.oneIn(9) ? op.type : type, 0, trial.lba);
    check.param.errBlockBitmap = bitmap.data();
    trial.vary(check.param, random.from(0, 17));
    const bool noPlace = random.oneIn(20), noRecord = random.oneIn(20);
    const Sgl *const sgl = noPlace ? nullptr : chain.at(0);
    uint8_t *const buf = noPlace ? nullptr : trial.blocks.data(trial.offset);
    const auto given = [&](auto &record) { return noRecord ? nullptr : &record; };
    DifTuple tuple;
    uint64_t found;
    const std::function<void()> calls[] = {
        [&] { getDifLba(buf, info.blockSize, given(found)); },
        [&] { trans2LSectorDif(buf, trial.count, given(tuple)); },
        [&] { insertDifInSgl(sgl, offset, sectors, given(op)); },
        [&] { replaceDifInSgl(sgl, offset, sectors, given(op)); },
        [&] { injectDifInSgl(sgl, offset, sectors, given(inject)); },
        [&] { checkList(sgl, offset, sectors, given(check.param)); },
        [&] { noDifZeroDataCheckInSgl(sgl, offset, sectors, &check.param); },
        [&] { noDifSetCheckResultInSgl(sgl, offset, sectors, given(check.param)); },
        [&] { isDifEvictableInSgl(sgl, offset, sectors); },
        [&] { checkListReturning(sgl, offset, sectors, given(check.param)); },
        [&] { checkDifInSglWithStdT10(sgl, offset, sectors, given(check.param)); },
    };
    calls[random.from(0, std::size(calls) - 1)]();
    const std::vector<uint8_t> after = chain.bytes();
    for (const size_t start : starts)
        std::copy_n(&after[start + info.dataSize], info.blockSize - info.dataSize, &before[start + info.dataSize]);
    require(before == after, "a call changes what is not its own");
}

} /* namespace */

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    Random random([&] { return data.ConsumeIntegral<uint16_t>() * 0x9E3779B97F4A7C15; });
    const VerifyPointDesc points[] = {{1, "front"}, {2, "back"}};
    difModuleInit();
    difRegistVerifyPoint(DIF_MID_CACHE, points, 2, "fuzz", 1);
    const bool isOn = !random.oneIn(4);
    const auto level = static_cast<uint8_t>(random.from(0, 5)), version = random.of<uint8_t>({0x13, 0x29});
    setDifOn(isOn);
    setSysDifCrcVersion(version);
    setSysDifVerifyLevel(level);
    host.filtered = random.from(0, 127);
    for (int i = 0; i < 4 && data.remaining_bytes() > 0; ++i) {
        host.tick += random.from(0, 200000);
        callOnce(random);
        Trial trial(random);
        trial.write(isOn, {version});
        trial.ask(isOn);
        trial.check(random.of({Trial::kBuffer, Trial::kList, Trial::kReturning}), isOn, DIF_MID_CACHE, level);
        host.take();
    }
    return 0;
}
