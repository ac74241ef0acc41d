// What the stream writer's source files share: its log line shape and the
// frame types a file may be cut at.
#pragma once

#include <cstdint>

#include "MediaLog.h"
#include "VeltoFrame.h"

#define WLOG(level, fmt, ...) \
  ZLOG(level, "CStreamWriter", 0, "sid(%d)" fmt, static_cast<int>(m_sid) __VA_OPT__(, ) __VA_ARGS__)

namespace Velto::Zarn {

inline bool isCutKey(uint8_t type) { return type == FRAME_TYPE_I || type == FRAME_TYPE_IMAGE; }

}  // namespace Velto::Zarn
