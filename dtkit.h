/* dtkit umbrella header: every public module header, lowest layer first. */
#ifndef DTKIT_DTKIT_H
#define DTKIT_DTKIT_H

#include "platform/DTPlatform.h"

#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "foundation/DTString.h"

#include "containers/DTList.h"
#include "containers/DTBuf.h"
#include "containers/DTHash.h"
#include "containers/DTMD5.h"
#include "containers/DTSet.h"

#include "records/DTTime.h"
#include "records/DTBuffer.h"
#include "records/DTInfo.h"
#include "records/DTLogger.h"

#include "fault/DTFault.h"
#include "fault/DTFuncLog.h"

#include "collect/collect_client.h"
#include "collect/collect_api.h"
#include "collect/collect_getdata.h"
#include "collect/collect_selftest.h"

#include "table/DTTable.h"

#include "net/DTSock.h"
#include "net/DTConfig.h"

#include "timer/DTTimer.h"

#endif
