// The index fixer's log lines: "[Fixer:<object>:<function>:<line>]" and the
// text. For use inside member functions (the object is `this`).
#pragma once

#include "KanduLog.h"

#define FIXLOG(level, fmt, ...) \
  KLOG_AT(::Velto::Kandu::LOG_##level, "[Fixer:%p:%s:%d]" fmt, static_cast<const void*>(this), __FUNCTION__, \
          __LINE__ __VA_OPT__(, ) __VA_ARGS__)
