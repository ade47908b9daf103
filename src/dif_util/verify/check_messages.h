/*
 * What the check says about a block, on behalf of its step. None of it is on the success path: the functions are cold, so
 * that the block loop carries nothing of them but the calls.
 */
#pragma once

#include "dif_util/verify/failed_block.h"

/* The tuple is exempt, and why that matters: to the report, to the integrity step. */
[[gnu::cold]] void noteExemptFromReport(const CheckedBlock &block, const DifCheckParam &param);
[[gnu::cold]] void noteExemptFromIntegrity(const CheckedBlock &block, const DifCheckParam &param);

/* The tuple carries the BST mark. */
[[gnu::cold]] void warnOfBst(const CheckedBlock &block, const DifCheckParam &param);

/*
 * The block fails, in the check of that name. Only the first failure of a call is told: each of these uses up the call's
 * claim, DIF_CHECK_LOG_FIRST, whether or not the message then passes its limiter.
 */
[[gnu::cold]] void warnOfVersionInLbaCheck(const CheckedBlock &block, DifCheckParam &param);
[[gnu::cold]] void warnOfVersionInCrcCheck(const CheckedBlock &block, DifCheckParam &param);
[[gnu::cold]] void warnOfLba(const CheckedBlock &block, DifCheckParam &param);
[[gnu::cold]] void warnOfCrc(const CheckedBlock &block, DifCheckParam &param, uint16_t expected);
