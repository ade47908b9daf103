/* libdif: 8-byte data integrity fields behind the blocks of a storage stack. All of the interface. */
#ifndef DIF_DIF_H
#define DIF_DIF_H

#include "dif/block.h"
#include "dif/check.h"
#include "dif/crc16.h"
#include "dif/diagnose.h"
#include "dif/runtime.h"
#include "dif/sgl.h"
#include "dif/types.h"
#include "dif/verify_point.h"

#endif
