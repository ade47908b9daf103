/*
 * What the check says about a block, on behalf of its step. None of it is on the success path: the functions are cold, so
 * that the block loop carries nothing of them but the calls.
 */
#pragma once

#include "dif_util/verify/failed_block.h"

/* The tuple is exempt, and why that matters: to the report, to the integrity step. */
[[gnu::cold]] void noteExemptFromReport(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param);
[[gnu::cold]] void noteExemptFromIntegrity(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param);

/* The tuple carries the BST mark. */
[[gnu::cold]] void warnOfBst(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param);

/*
 * The block fails, in the check of that name. Only the first failure of a call is told: each of these uses up the call's
 * claim, DIF_CHECK_LOG_FIRST, whether or not the message then passes its limiter.
 */
[[gnu::cold]] void warnOfVersionInLbaCheck(CheckedBlock block, const DifTypeInfo &info, DifCheckParam &param);
[[gnu::cold]] void warnOfVersionInCrcCheck(CheckedBlock block, const DifTypeInfo &info, DifCheckParam &param);
[[gnu::cold]] void warnOfLba(CheckedBlock block, const DifTypeInfo &info, DifCheckParam &param);
[[gnu::cold]] void warnOfCrc(CheckedBlock block, const DifTypeInfo &info, DifCheckParam &param, uint16_t expected);
