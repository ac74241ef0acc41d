#include "IndexFixSubmit.h"

namespace Velto::Zarn {

// The index fixer fills this in: it hands the file's name and the store to the
// index-fix manager's pending set.
void submitIndexFixWork(CZarnFileSystem& /*fs*/, const RecordFileName& /*record*/) {}

}  // namespace Velto::Zarn
