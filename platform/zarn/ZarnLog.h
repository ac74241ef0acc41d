// Logging of the store client and its backends.
//
// Lines go through the runtime's KLOG_* destination. The store client has its
// own threshold (ZARN_OPT_LOG_LEVEL, process-wide like the runtime's level): a
// line is written when it is at or above both. Lines follow the library's shape
// "#<code>,<Class>::<function> <line>, <text>".
#pragma once

#include "KanduLog.h"

namespace Velto::Zarn {

void setStoreLogLevel(int level);  // 0 trace .. 5 off
int storeLogLevel();

}  // namespace Velto::Zarn

#define ZLOG_LINE(level, code, tag, fmt, ...)                                                      \
  do {                                                                                           \
    if (static_cast<int>(level) >= ::Velto::Zarn::storeLogLevel())                               \
      KLOG_AT(level, "#%d," tag "::%s %d, " fmt "\n", static_cast<int>(code), __func__,          \
              __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                              \
  } while (0)
