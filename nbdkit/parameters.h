/* What the command line asks of the filter. */
#ifndef DIF_NBDKIT_PARAMETERS_H
#define DIF_NBDKIT_PARAMETERS_H

#include "image/block_format.h"

#include <cstdint>
#include <optional>
#include <string>

namespace nbd {

struct Parameters {
    image::BlockFormat format = image::kFormat520;
    uint8_t version = DIF_VERSION_T10; /* of the fields that are written */
    uint64_t firstLba = 0;
    bool zerosAreUnwritten = true; /* a block of zeros was never written, and reads as zeros */
    bool servesFaults = false;     /* blocks that fail are reported and served */
    uint64_t scrubRate = 0;        /* bytes a second; 0: only when asked for by socket */
    std::string intent;            /* absolute paths; none if empty */
    std::string socket;
    std::string log;
    std::string metrics;
    std::string image; /* the file that the plugin says it serves */
};

/* The parameters of nbdkit --help. */
extern const char kParameterHelp[];

/* Takes a parameter that begins with "dif-". Returns 0; or -1, after nbdkit_error. */
int takeParameter(Parameters &parameters, const char *key, const char *value);

/* Each file has one purpose, and none is the image. Returns 0; or -1, after nbdkit_error. */
int refuseSharedFiles(const Parameters &parameters);

/* Makes a path good for a server that leaves its directory. Returns 0; or -1, after nbdkit_error. */
int takePath(std::string &path, const char *key, const char *value);

} // namespace nbd

#endif
