#ifndef DIFCTL_SELFTEST_H
#define DIFCTL_SELFTEST_H

#include <cstdint>

namespace difctl {

/* How often, and over how many bytes, the engines run by default. */
inline constexpr uint64_t kSelftestTimes = 1000;
inline constexpr uint64_t kSelftestLen = 4096;

/* Adds the word "selftest" to the diagnose shell of this process. */
void registerSelftest();

} // namespace difctl

#endif
