// What the fuzz targets share: a local store in a temporary directory (under
// /dev/shm, or $ZARN_FUZZ_STORE_DIR) made once per process, and the names of
// the record files the targets write.
#pragma once

#include <cstdint>
#include <string>

#include "RecordFileName.h"
#include "ZarnClient.h"

namespace ZarnFuzz {

// The process's store (made on first use under $TMPDIR, removed at exit).
Velto::Zarn::CZarnFileSystem& store();
// A fresh closed record-file name of stream 7 for each call (so that no file
// of an earlier input is met), with the given index state.
Velto::Zarn::RecordFileName nextRecordName(uint32_t indexState);
// Replaces the store file `path` with `size` bytes of `data`.
bool putFile(const std::string& path, const uint8_t* data, size_t size);

}  // namespace ZarnFuzz
