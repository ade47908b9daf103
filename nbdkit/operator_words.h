/* The words "nbd" and "scrub" of the control socket, and the filter's metrics. */
#ifndef DIF_NBDKIT_OPERATOR_WORDS_H
#define DIF_NBDKIT_OPERATOR_WORDS_H

#include "scrubber.h"

#include <string>

namespace nbd {

/* Registers them with the host, for the life of the process. Returns 0, or an errno value. */
int registerWords(Ledger &ledger, Scrubber &scrubber);

/* Writes all metrics to the file, whole or not at all, by way of one with ".new" behind its name. Returns 0, or an errno value. */
int writeMetrics(const std::string &path);

/* Whether the file may be replaced by one of metrics: it is not there, or begins like one. */
bool mayHoldMetrics(const std::string &path);

} // namespace nbd

#endif
