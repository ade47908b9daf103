/*
 * Faults of a chain: each is told to the log, with a dump of the chain, on behalf of the operation that has met it. Then
 * an asserting operation asserts and goes on as far as there is an entry to go on with; a returning one ends.
 */
#pragma once

#include "dif_util/core/assertion.h"
#include "dif_util/sgl/range.h"

enum ChainFault : uint8_t {
    kEmptyRoot,     /* the root has no entry */
    kNoEntry,       /* nor has a later node */
    kNoNode,        /* the chain ends before the range does */
    kBadFirstEntry, /* the root's first entry is nothing or not whole blocks */
    kBadEntry,      /* or a later one is */
    kBadStart,      /* the range does not start on a block boundary */
    kChainFaultNum
};

/* The assertions of one operation, by fault; a line each, which tells them apart in the log. */
struct ChainAssertions {
    // clang-format off
    AssertionSite of[kChainFaultNum] = {
        {"0", "0", __LINE__},
        {"0", "0", __LINE__},
        {"0", "0", __LINE__},
        {"0", "0", __LINE__},
        {"0", "0", __LINE__},
        {"0", "0", __LINE__},
    };
    // clang-format on
};

/* How an operation meets faults. */
struct ChainFaults {
    const char *opName;          /* as the messages name it */
    ChainAssertions *assertions; /* null if it returns errors */
};

/* Reports a fault at `at`. True if the operation must end for it. The walk keeps its state in registers: by value. */
[[gnu::cold]] bool reportChainFault(ChainFaults faults, ChainFault fault, const SglRange &range, SglPosition at);
