// What the parts of a stream reader (status machine, session cursor, frame
// assembler) share: the read orders, and the reader's log lines, which read
// "#0,StreamReader::<function> <line>, status(<s>):order(<o>)<text>" whichever
// part writes them.
#pragma once

#include <atomic>
#include <cstdint>

#include "MediaLog.h"

namespace Velto::Zarn {

// Read orders, chosen per readFrame call by its two flags.
enum ReadOrder : int32_t {
  ORDER_FORWARD = 0,      // forward, every frame
  ORDER_FORWARD_KEY = 1,  // forward, key frames only (index entry to index entry)
  ORDER_REVERSE = 2,      // each group of pictures forward, the groups backwards
  ORDER_REVERSE_KEY = 3,  // key frames only, backwards over the index
};

inline bool isReverseOrder(int32_t order) { return order == ORDER_REVERSE || order == ORDER_REVERSE_KEY; }

struct ReaderLogContext {
  const std::atomic<int32_t>& status;
  const std::atomic<int32_t>& order;
};

}  // namespace Velto::Zarn

#define READER_LOG(context, level, fmt, ...)                                                         \
  ZLOG(level, "StreamReader", 0, "status(%d):order(%d)" fmt, static_cast<int>((context).status.load()), \
       static_cast<int>((context).order.load()) __VA_OPT__(, ) __VA_ARGS__)
