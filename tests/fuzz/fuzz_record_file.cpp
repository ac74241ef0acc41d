// A record file (and, in one mode, a separate index file) made of the input's
// bytes, opened as a reader opens it, its frames read as playback reads them,
// and its index walked by offset both ways. Nothing may be read outside the
// file, nothing allocated beyond its size, and every walk must end.
//
// Byte 0 of the input picks the mode: bit 0 reseals the record info's CRC (so
// that the checks behind it are reached), bit 1 splits the rest at bytes 1-2
// into a record file named with a separate index and that index file.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "FrameAssembler.h"
#include "FuzzStore.h"
#include "KanduCrc.h"
#include "ReaderFrameBuffer.h"
#include "RecordFile.h"
#include "VeltoFrame.h"

using namespace Velto::Zarn;

namespace {

void resealInfo(std::vector<uint8_t>& bytes) {
  if (bytes.size() < RecordInfo::kSize) return;
  uint8_t* info = bytes.data() + bytes.size() - RecordInfo::kSize;
  std::memcpy(info, "VZMF", 4);
  const uint32_t crc = Velto::Kandu::crc32(info, RecordInfo::kCrcSpan);
  std::memcpy(info + RecordInfo::kCrcSpan, &crc, sizeof(crc));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3 || size > (1u << 20)) return 0;
  const uint8_t mode = data[0];
  const bool separate = (mode & 2) != 0;
  size_t split = size - 3;
  if (separate) split = std::min<size_t>(size - 3, static_cast<size_t>(data[1]) | (static_cast<size_t>(data[2]) << 8));
  std::vector<uint8_t> record(data + 3, data + 3 + split);
  std::vector<uint8_t> index(data + 3 + split, data + size);
  if (mode & 1) resealInfo(separate ? index : record);

  RecordFileName name = ZarnFuzz::nextRecordName(separate ? RECORD_INDEX_SEPARATE : RECORD_INDEX_INTERNAL);
  std::string path;
  generateRecordFileName(name, path);
  if (!ZarnFuzz::putFile(path, record.data(), record.size())) return 0;
  std::string indexPath;
  if (separate) {
    RecordFileName indexName = name;
    indexName.isIndex = 1;
    generateRecordFileName(indexName, indexPath);
    if (!ZarnFuzz::putFile(indexPath, index.data(), index.size())) return 0;
  }

  CZarnFileSystem& fs = ZarnFuzz::store();
  {
    CRecordFile file(fs, name);
    if (file.openForRead()) {
      const bool indexed = file.state() == CRecordFile::STATE_INDEXED;
      if (indexed && file.length() > record.size()) __builtin_trap();  // a data end past the file
      std::shared_ptr<CRecordFileIndex> idx = file.recordIndex();
      if (indexed && idx) {
        // Both walks by offset end, each moving strictly.
        IndexEntry e{};
        size_t steps = 0;
        for (uint64_t at = 0; idx->keyAfterOffset(at, e); at = e.offset()) {
          if (e.offset() <= at || ++steps > idx->size()) __builtin_trap();
        }
        steps = 0;
        for (uint64_t at = UINT64_MAX; idx->keyBeforeOffset(at, e); at = e.offset()) {
          if (e.offset() >= at || ++steps > idx->size()) __builtin_trap();
        }
        for (uint32_t t : {name.beginTime, name.beginTime + 1800, name.endTime}) (void)idx->getIFrameOffset(t);
      }
      // Playback's frame reading over the whole data.
      std::atomic<int32_t> status{3}, order{0};
      CReaderFrameBuffer items(4);
      CFrameAssembler assembler(items, ReaderLogContext{status, order});
      assembler.attach(&file, indexed ? file.length() : CFrameAssembler::kUnknownEnd);
      if (assembler.positionAt(0)) {
        std::unique_ptr<CReaderFrameBuffer::FrameItem> item;
        VeltoFrameHead head;
        uint64_t frameStart = 0;
        for (size_t frames = 0; frames <= record.size() / kMinFrameSize; ++frames) {
          if (assembler.next(item, head, frameStart) != CFrameAssembler::kFrame) break;
          if (frameStart + item->length > record.size()) __builtin_trap();
          items.recycle(std::move(item));
        }
      }
      assembler.attach(nullptr, CFrameAssembler::kUnknownEnd);
    }
    file.close();
  }
  fs.removeFile(path);
  if (separate) fs.removeFile(indexPath);
  return 0;
}
