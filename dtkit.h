/* dtkit umbrella header: every public module header, lowest layer first. */
#ifndef DTKIT_DTKIT_H
#define DTKIT_DTKIT_H

#include "platform/DTPlatform.h"

#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "foundation/DTString.h"

#include "containers/DTList.h"

#include "records/DTTime.h"
#include "records/DTBuffer.h"

#endif
