/* An image on its way to the export of an NBD server. */
#ifndef DIFCTL_NBD_SINK_H
#define DIFCTL_NBD_SINK_H

#include "io/nbd_connection.h"
#include "io/overwriting_sink.h"

#include <vector>

namespace difctl {

/* While one request is under way to the server, the next one is taken. */
class NbdSink : public OverwritingSink {
public:
    explicit NbdSink(const std::string &uri);

private:
    uint64_t length() const override { return connection_.length(); }
    void append(const Pieces &pieces) override;
    void finish() override;

    std::vector<uint8_t> bytes_;    /* of the image from offset_ on, not yet under way or in part */
    std::vector<uint8_t> underWay_; /* those before them */
    uint64_t offset_ = 0;
    NbdConnection connection_;
};

} // namespace difctl

#endif
