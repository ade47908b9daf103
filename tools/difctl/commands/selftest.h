#ifndef DIFCTL_SELFTEST_H
#define DIFCTL_SELFTEST_H

namespace difctl {

/* Adds the word "selftest" to the diagnose shell of this process. */
void registerSelftest();

} // namespace difctl

#endif
