// The library's log lines.
//
// Every line begins "#<code>,<tag>::<function> <line>, " and then its text:
// the code is an error code (0 when none), the tag names the module ("GENERAL"
// for the facade and free helpers, the class name for class methods). ZLOG
// assembles the prefix at compile time from a string-literal tag, so that a
// line below the current level costs two atomic loads and nothing else, and
// the compiler checks the whole format against its arguments.
//
//   ZLOG(ERROR, "GENERAL", getLastError(), "create bucket %s failed : %s\n", name, message);
//
// ZLOG_IN names the function explicitly, for helpers that log on behalf of
// their caller. Levels are TRACE, DEBUG, INFO, WARN and ERROR.
#pragma once

#include "KanduLog.h"

#define ZLOG_IN(level, tag, function, code, fmt, ...)                                                   \
  KLOG_AT(::Velto::Kandu::LOG_##level, "#%d," tag "::%s %d, " fmt, static_cast<int>(code), function, __LINE__ \
              __VA_OPT__(, ) __VA_ARGS__)
#define ZLOG(level, tag, code, fmt, ...) ZLOG_IN(level, tag, __FUNCTION__, code, fmt __VA_OPT__(, ) __VA_ARGS__)
