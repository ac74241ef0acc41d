// zarn-media record: video from a file, URL or the synthetic generator into
// one stream of the store.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Cli.h"
#include "Commands.h"
#include "Frames.h"
#include "MediaIo.h"

namespace ZarnMedia {

namespace {

const char* const kRecordHelp =
    "usage: zarn-media record --stream ID [options] INPUT\n"
    "       zarn-media record --stream ID --synthetic [options]\n"
    "\n"
    "Records the H.264 or H.265 video of INPUT (any file or URL FFmpeg opens: MP4, MKV,\n"
    "MPEG-TS, a raw Annex-B stream, rtsp://...) as frames of stream ID: one frame per\n"
    "packet, key packets as I frames (one per second at most: the store finds I frames\n"
    "by the second; a later one in the same second is kept as a P frame and exported as\n"
    "a key picture), Annex-B with parameter sets in band. Frame times are the packets'\n"
    "decode times, counted from --start. The codec is kept as the\n"
    "stream type (264 = H.264, 265 = H.265), so `export` can remux without the source.\n"
    "Refuses to record over a time the stream already has recordings for.\n"
    "\n"
    "options:\n"
    "  --stream ID            stream id (unsigned number), required\n"
    "  --start TIME           UTC time of the first frame: \"YYYY-MM-DD HH:MM:SS\" or\n"
    "                         seconds since 1970 (default: now)\n"
    "  --realtime             pace the frames at the speed of the video\n"
    "  --retain-hours H       recycling policy set for the stream first (default 720)\n"
    "  --max-frame-size B     largest frame in bytes (default: the library's, 4194304)\n"
    "  --synthetic            record a moving test pattern instead of INPUT\n"
    "  --seconds S            synthetic: length (default 10)\n"
    "  --fps F                synthetic: frame rate (default 25)\n"
    "  --size WxH             synthetic: picture size (default 320x240)\n"
    "  --gop N                synthetic: frames per group of pictures (default: one second)\n"
    "  --codec h264|h265      synthetic: encoder (default h264)\n";

constexpr unsigned kCloseWaitSeconds = 30;

int parseSynthetic(const COptions& options, SyntheticParams& params) {
  if (!options.getDouble("seconds", params.seconds) || !options.getDouble("fps", params.fps)) return kExitUsage;
  if (params.fps > 1000) return fail(kExitUsage, "--fps: at most 1000");
  if (params.seconds > 86400) return fail(kExitUsage, "--seconds: at most 86400");
  uint64_t gop = static_cast<uint64_t>(params.fps + 0.5);
  if (!options.getUnsigned("gop", gop, 100000)) return kExitUsage;
  params.gop = static_cast<int>(std::max<uint64_t>(gop, 1));
  const std::string size = options.value("size", "320x240");
  int w = 0, h = 0, consumed = 0;
  if (std::sscanf(size.c_str(), "%dx%d%n", &w, &h, &consumed) != 2 || static_cast<size_t>(consumed) != size.size() ||
      w < 16 || h < 16 || w > 8192 || h > 8192 || w % 2 != 0 || h % 2 != 0) {
    return fail(kExitUsage, "--size: '%s' is not an even WxH from 16x16 to 8192x8192", size.c_str());
  }
  params.width = w;
  params.height = h;
  const std::string codec = options.value("codec", "h264");
  if (codec == "h264") {
    params.codec = Codec::H264;
  } else if (codec == "h265" || codec == "hevc") {
    params.codec = Codec::H265;
  } else {
    return fail(kExitUsage, "--codec: '%s' is neither h264 nor h265", codec.c_str());
  }
  return kExitOk;
}

// Whether a listed record file is closed. The file list reports a file still
// being written with the writer's current end time, so only the name tells:
// an open file is named "<date>_<type>.qrv", a closed one
// "<date>_<end>_<type>_<locks>_<state>.qrv" (doc/record_names.md).
bool isClosedName(const char* fileName) {
  const char* base = std::strrchr(fileName, '/');
  base = base != nullptr ? base + 1 : fileName;
  return std::count(base, base + std::strlen(base), '_') >= 4;
}

// Waits until every file of the stream in [from, to] is closed: the writer
// closes its last file asynchronously after deleteStream.
bool waitFilesClosed(CStore& store, unsigned streamId, int64_t from, int64_t to, size_t& fileCount) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kCloseWaitSeconds);
  for (;;) {
    std::vector<Velto::Zarn::RecordClipEx> files;
    if (store.files(streamId, files, from, to + 1) == 0) {
      fileCount = files.size();
      // An open file whose writer is gone is left out of listings until it is
      // renamed, so an empty list means "not yet" too.
      if (!files.empty() &&
          std::all_of(files.begin(), files.end(), [](const auto& f) { return isClosedName(f.fileName); })) {
        return true;
      }
    }
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

}  // namespace

int runRecord(int argc, char** argv) {
  COptions options({"stream", "start", "retain-hours", "max-frame-size", "seconds", "fps", "size", "gop", "codec"},
                   {"synthetic", "realtime"});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", kRecordHelp, kCommonHelp);
    return kExitOk;
  }
  unsigned streamId = 0;
  if (!getStream(options, streamId)) return kExitUsage;
  int64_t start = nowSeconds();
  if (!options.getTime("start", start)) return kExitUsage;
  if (packTime(start) == 0) return fail(kExitUsage, "--start: frames carry times from 2000 to 2063 only");
  uint64_t retainHours = 720, maxFrameSize = 0;
  if (!options.getUnsigned("retain-hours", retainHours, 1000000) ||
      !options.getUnsigned("max-frame-size", maxFrameSize, 1u << 30)) {
    return kExitUsage;
  }
  if (retainHours == 0) return fail(kExitUsage, "--retain-hours: a stream needs a retention of at least 1 hour");
  const bool synthetic = options.has("synthetic");
  if (synthetic != options.positional().empty() || options.positional().size() > 1) {
    return fail(kExitUsage, "give exactly one INPUT, or --synthetic (see --help)");
  }

  // The input is opened and its first packet read before the store is
  // touched: a bad input records nothing and changes nothing.
  installInterruptHandler();
  quietFfmpeg(options.has("verbose"));
  std::unique_ptr<IPacketSource> source;
  int rc = kExitOk;
  if (synthetic) {
    SyntheticParams params;
    if ((rc = parseSynthetic(options, params)) != kExitOk) return rc;
    rc = openSyntheticSource(params, source);
  } else {
    rc = openFileSource(options.positional()[0], source);
  }
  if (rc != kExitOk) return rc;
  Packet packet;
  rc = source->next(packet);
  if (rc <= 0) {
    return rc < 0 ? kExitInput : fail(kExitInput, "'%s' holds no video packets", source->describe().c_str());
  }

  CStore store;
  if ((rc = store.open(options, false, static_cast<int>(maxFrameSize))) != kExitOk) return rc;
  const int64_t expectedEnd = start + static_cast<int64_t>(source->durationSeconds()) + 1;
  std::vector<Velto::Zarn::RecordClipEx> existing;
  if (store.files(streamId, existing, start, expectedEnd + 1) != 0) {
    return fail(kExitFailed, "cannot list the files of stream %u", streamId);
  }
  if (!existing.empty()) {
    return fail(kExitUsage, "stream %u already has recordings between %s and %s; choose another --start or stream",
                streamId, formatTime(existing.front().beginTime).c_str(),
                formatTime(std::max(existing.back().beginTime, existing.back().endTime)).c_str());
  }
  auto& client = store.client();
  const short type = source->codec() == Codec::H264 ? kStreamTypeH264 : kStreamTypeH265;
  if (client.setRecyclePolicy(streamId, static_cast<unsigned>(retainHours), 0) != 0) {
    return fail(kExitFailed, "the library refused a %" PRIu64 " h recycling policy for stream %u", retainHours,
                streamId);
  }
  if ((rc = client.addStream(streamId, type, true)) != 0) {
    return fail(kExitFailed, "cannot add stream %u for recording (code %d)", streamId, rc);
  }

  const int64_t maxFrame = maxFrameSize != 0 ? static_cast<int64_t>(maxFrameSize) : 4194304;
  const int64_t firstDts = packet.dtsMs;
  const bool progress = progressWanted();
  const auto wallStart = std::chrono::steady_clock::now();
  auto lastProgress = wallStart;
  uint64_t frames = 0, keyFrames = 0, dropped = 0, bytes = 0;
  int64_t lastRel = 0;
  int64_t lastKeySecond = -1;
  std::vector<uint8_t> bytesOut;
  int result = kExitOk;
  for (;;) {
    const int64_t rel = packet.dtsMs - firstDts;
    FrameFields fields;
    fields.keyPicture = packet.key;
    fields.key = packet.key && (lastKeySecond < 0 || start + rel / 1000 != lastKeySecond);
    if (fields.key) lastKeySecond = start + rel / 1000;
    fields.sequence = static_cast<uint32_t>(frames + dropped);
    fields.epochSeconds = start + rel / 1000;
    fields.msStamp = static_cast<uint16_t>(rel & 0xFFFF);
    fields.ptsOffsetMs = static_cast<uint16_t>(std::clamp<int64_t>(packet.ptsMs - packet.dtsMs, 0, kMaxPtsOffsetMs));
    if (!buildFrame(fields, packet.data.data(), packet.data.size(), bytesOut)) {
      result = fail(kExitInput, "the video runs past 2063, the last time a frame can carry");
      break;
    }
    if (static_cast<int64_t>(bytesOut.size()) >= maxFrame) {
      result = fail(kExitInput, "a packet of %zu bytes exceeds the maximum frame size; raise --max-frame-size",
                    packet.data.size());
      break;
    }
    if (options.has("realtime")) std::this_thread::sleep_until(wallStart + std::chrono::milliseconds(rel));
    Velto::Zarn::VeltoFrame frame;
    frame.attach(bytesOut.data());
    unsigned long long written = 0;
    rc = client.writeFrame(streamId, &frame, 0, written);
    if (rc != 0) {
      result = fail(kExitFailed, "writing frame %" PRIu64 " to stream %u failed (code %d)", frames + dropped,
                    streamId, rc);
      break;
    }
    if (written == bytesOut.size()) {
      ++frames;
      keyFrames += packet.key ? 1 : 0;
      bytes += bytesOut.size();
      lastRel = rel;
    } else {
      ++dropped;  // the writer skips what cannot be decoded (before the first key frame)
    }
    const auto now = std::chrono::steady_clock::now();
    if (progress && now - lastProgress > std::chrono::milliseconds(250)) {
      const double wall = std::chrono::duration<double>(now - wallStart).count();
      std::fprintf(stderr, "\rrecording: %" PRIu64 " frames, %.1f s of video, %.2f MB/s   ", frames,
                   static_cast<double>(rel) / 1000.0, wall > 0 ? static_cast<double>(bytes) / 1e6 / wall : 0.0);
      lastProgress = now;
    }
    rc = source->next(packet);
    if (rc < 0) result = kExitInput;
    if (rc <= 0) break;
  }
  if (progress) std::fprintf(stderr, "\r%79s\r", "");
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();

  // What was written stays: the stream is closed and its last file finished
  // whatever stopped the loop.
  client.deleteStream(streamId);
  size_t fileCount = 0;
  const int64_t endTime = start + lastRel / 1000;
  if (!waitFilesClosed(store, streamId, start, endTime, fileCount)) {
    fail(kExitFailed, "stream %u: its last file was not closed within %u s", streamId, kCloseWaitSeconds);
    if (result == kExitOk) result = kExitFailed;
  }
  if (g_interrupted.load() && result == kExitOk) result = kExitInterrupted;
  if (frames == 0 && result == kExitOk) result = fail(kExitInput, "no frame was recorded: the input has no key frame");

  const double seconds = static_cast<double>(lastRel) / 1000.0;
  if (options.json()) {
    CJson json;
    json.beginObject()
        .value("stream", streamId)
        .value("codec", type == kStreamTypeH264 ? "h264" : "h265")
        .value("type", static_cast<int>(type))
        .value("frames", frames)
        .value("keyFrames", keyFrames)
        .value("dropped", dropped)
        .value("bytes", bytes)
        .value("seconds", seconds)
        .time("begin", start)
        .time("end", endTime)
        .value("files", static_cast<uint64_t>(fileCount))
        .value("complete", result == kExitOk)
        .endObject()
        .print();
  } else {
    std::printf("stream %u: recorded %" PRIu64 " frames (%" PRIu64 " key) of %s, %.2f s of video, %.2f MB, "
                "%s .. %s UTC, %zu file(s), %.2f MB/s\n",
                streamId, frames, keyFrames, type == kStreamTypeH264 ? "H.264" : "H.265", seconds,
                static_cast<double>(bytes) / 1e6, formatTime(start).c_str(), formatTime(endTime).c_str(), fileCount,
                wall > 0 ? static_cast<double>(bytes) / 1e6 / wall : 0.0);
    if (dropped != 0) std::printf("  %" PRIu64 " packet(s) before the first key frame were not recorded\n", dropped);
  }
  return result;
}

}  // namespace ZarnMedia
