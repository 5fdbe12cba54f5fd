/// Every kit service the module calls. A kit is any library that defines all of them.
#ifndef VEXO_PLATFORM_H
#define VEXO_PLATFORM_H

#include "vexo_cloud.h"
#include "vexo_crypto.h"
#include "vexo_device.h"
#include "vexo_kv.h"
#include "vexo_log.h"
#include "vexo_media_info.h"
#include "vexo_ring_buffer.h"
#include "vexo_thread.h"
#include "vexo_time.h"

#endif
