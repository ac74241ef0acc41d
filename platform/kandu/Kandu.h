// The whole Kandu runtime: threads, timers, locks, calendar time, local files,
// logging and CRC-32.
#pragma once

#include "KanduClock.h"
#include "KanduCrc.h"
#include "KanduFile.h"
#include "KanduLog.h"
#include "KanduSync.h"
#include "KanduThread.h"
#include "KanduTime.h"
#include "KanduTimer.h"
