// zarn-media export: a time range of a stream, read back through a playback
// session, into a playable file or as raw frames to stdout.
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "Cli.h"
#include "Commands.h"
#include "Frames.h"
#include "MediaIo.h"

namespace ZarnMedia {

namespace {

const char* const kExportHelp =
    "usage: zarn-media export --stream ID [--from TIME] [--to TIME] [--order ORDER] -o OUTPUT\n"
    "\n"
    "Plays the stream back over [--from, --to] (UTC, both ends included; default: all\n"
    "of it) and writes the frames to OUTPUT without re-encoding:\n"
    "  *.mp4 *.mov *.mkv            remuxed into the container\n"
    "  *.h264 *.264 *.h265 *.265 *.hevc   the Annex-B elementary stream\n"
    "  -                            the whole frames (QRAV head, payload, qrav tail) to stdout\n"
    "Playback starts at the key frame of the group of pictures holding --from.\n"
    "Orders (--order): forward (default), key (key frames only), reverse (groups of\n"
    "pictures from the last to the first, each played forward), reverse-key (key frames,\n"
    "last first). Files of the reverse orders are timed to play forward at normal speed.\n"
    "\n"
    "options:\n"
    "  --stream ID            stream id, required\n"
    "  --from TIME, --to TIME \"YYYY-MM-DD HH:MM:SS\" (UTC) or seconds since 1970\n"
    "  --order ORDER          forward | key | reverse | reverse-key\n"
    "  -o, --output OUTPUT    output file, or - for raw frames on stdout\n"
    "  --max-frame-size B     largest frame in bytes (default: the library's)\n";

// Consecutive 1-second waits of a blocking read before the export gives up:
// a closed recording never makes the reader wait this long.
constexpr int kMaxStalledReads = 15;

// Turns the frames' second and millisecond stamps into a running time and the
// times of the output file.
class CTimeline {
 public:
  CTimeline(bool reverse, bool keyOnly) : m_reverse(reverse), m_keyOnly(keyOnly) {}

  // Output decode time in ms of the next frame.
  int64_t next(const FrameFields& f) {
    if (!m_started) {
      m_started = true;
      remember(f);
      return 0;
    }
    // The stamp wraps at 65536 ms; whole seconds settle long gaps.
    int64_t delta = static_cast<int16_t>(static_cast<uint16_t>(f.msStamp - m_lastStamp));
    const int64_t secondsDelta = (f.epochSeconds - m_lastSeconds) * 1000;
    if (secondsDelta - delta > 5000 || delta - secondsDelta > 5000) delta = secondsDelta;
    m_sourceSpanMs += delta > 0 ? delta : -delta;
    remember(f);
    // Reverse orders: groups of pictures run forward inside but step back in
    // between; key frames only run backwards throughout.
    if (m_reverse && m_keyOnly) delta = -delta;
    if (delta > 0 && delta < 60000) {
      m_step = delta;
      m_out += delta;
    } else {
      m_out += m_step;
    }
    return m_out;
  }
  int64_t step() const { return m_step; }
  int64_t sourceSpanMs() const { return m_sourceSpanMs; }

 private:
  void remember(const FrameFields& f) {
    m_lastStamp = f.msStamp;
    m_lastSeconds = f.epochSeconds;
  }
  const bool m_reverse;
  const bool m_keyOnly;
  bool m_started = false;
  uint16_t m_lastStamp = 0;
  int64_t m_lastSeconds = 0;
  int64_t m_out = 0;
  int64_t m_step = 40;
  int64_t m_sourceSpanMs = 0;
};

Codec codecForType(short type, bool& known) {
  known = type == kStreamTypeH264 || type == kStreamTypeH265;
  return type == kStreamTypeH265 ? Codec::H265 : Codec::H264;
}

}  // namespace

int runExport(int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    if (std::string(argv[i]) == "-o") argv[i] = const_cast<char*>("--output");
  }
  COptions options({"stream", "from", "to", "order", "output", "max-frame-size"}, {});
  if (!options.parse(argc, argv)) return kExitUsage;
  if (options.help()) {
    std::printf("%s%s", kExportHelp, kCommonHelp);
    return kExitOk;
  }
  unsigned streamId = 0;
  if (!getStream(options, streamId)) return kExitUsage;
  std::string output = options.value("output");
  if (output.empty() && options.positional().size() == 1) output = options.positional()[0];
  if (output.empty() || options.positional().size() > (options.has("output") ? 0u : 1u)) {
    return fail(kExitUsage, "give one OUTPUT with -o (a file, or - for raw frames)");
  }
  const std::string order = options.value("order", "forward");
  bool keyOnly = false, reverse = false;
  if (order == "key") {
    keyOnly = true;
  } else if (order == "reverse") {
    reverse = true;
  } else if (order == "reverse-key") {
    keyOnly = reverse = true;
  } else if (order != "forward") {
    return fail(kExitUsage, "--order: '%s' is not forward, key, reverse or reverse-key", order.c_str());
  }
  const bool toStdout = output == "-";
  const SinkKind kind = toStdout ? SinkKind::Unknown : sinkKindFor(output);
  if (!toStdout && kind == SinkKind::Unknown) {
    return fail(kExitUsage, "'%s': unknown output type; use .mp4, .mov, .mkv, .h264, .h265, .hevc or -",
                output.c_str());
  }
  if (toStdout && isatty(STDOUT_FILENO)) return fail(kExitUsage, "refusing to write raw frames to a terminal");
  uint64_t maxFrameSize = 0;
  if (!options.getUnsigned("max-frame-size", maxFrameSize, 1u << 30)) return kExitUsage;

  quietFfmpeg(options.has("verbose"));
  CStore store;
  int rc = store.open(options, true, static_cast<int>(maxFrameSize));
  if (rc != kExitOk) return rc;
  int64_t first = 0, last = 0, from = 0, to = 0;
  short type = 0;
  if ((rc = store.streamSpan(streamId, first, last, type)) != kExitOk) return rc;
  if ((rc = getRange(options, first, last, from, to)) != kExitOk) return rc;
  bool knownCodec = false;
  const Codec codec = codecForType(type, knownCodec);
  if (!toStdout && !knownCodec) {
    return fail(kExitUsage, "stream %u has type %d, not a codec zarn-media records (264, 265); export it with -o -",
                streamId, type);
  }
  std::vector<Velto::Zarn::RecordClipEx> inRange;
  if (store.files(streamId, inRange, from, to + 1) != 0 || inRange.empty()) {
    return fail(kExitNotFound, "nothing is recorded for stream %u between %s and %s", streamId,
                formatTime(from).c_str(), formatTime(to).c_str());
  }

  auto& client = store.client();
  const int session = client.addSession(streamId, static_cast<unsigned>(from), static_cast<unsigned>(to), true);
  if (session < 0) return fail(kExitFailed, "cannot start playback of stream %u (code %d)", streamId, session);

  // A new session has no read position, and the reverse orders start from
  // one: place it at the end of the range first.
  if (reverse && (rc = client.seek(static_cast<unsigned>(session), static_cast<unsigned>(to))) != 0) {
    client.deleteSession(static_cast<unsigned>(session));
    return fail(kExitFailed, "cannot position playback of stream %u at %s (code %d)", streamId,
                formatTime(to).c_str(), rc);
  }
  std::unique_ptr<IVideoSink> sink;
  if (kind == SinkKind::AnnexB && (rc = openAnnexBSink(output, sink)) != kExitOk) {
    client.deleteSession(session);
    return rc;
  }
  CTimeline timeline(reverse, keyOnly);
  Velto::Zarn::VeltoFrame frame;
  const bool progress = progressWanted() && !toStdout;
  const auto wallStart = std::chrono::steady_clock::now();
  auto lastProgress = wallStart;
  uint64_t frames = 0, keyFrames = 0, bytes = 0;
  int64_t firstTime = 0, lastTime = 0, startShift = 0;
  int stalled = 0;
  int result = kExitOk;
  installInterruptHandler();
  for (;;) {
    if (g_interrupted.load()) {
      result = kExitInterrupted;
      break;
    }
    unsigned long long length = 0;
    rc = client.readFrame(static_cast<unsigned>(session), &frame, length, keyOnly, reverse);
    if (rc == -2) {
      if (++stalled < kMaxStalledReads) continue;
      result = fail(kExitFailed, "playback of stream %u stalled (no frame for %d s)", streamId, kMaxStalledReads);
      break;
    }
    if (rc != 0) {
      result = fail(kExitFailed, "reading stream %u failed (code %d)", streamId, rc);
      break;
    }
    stalled = 0;
    if (length == 0) break;
    const FrameFields fields = readFrameFields(frame.head);
    const int64_t dts = timeline.next(fields);
    const uint8_t* payload = frame.payload;
    const size_t payloadSize = static_cast<size_t>(length) - kFrameOverhead - frame.head.extLength;
    if (frames == 0) firstTime = fields.epochSeconds;
    lastTime = fields.epochSeconds;
    if (toStdout) {
      if (std::fwrite(frame.frame, 1, length, stdout) != length) {
        result = fail(kExitInput, "writing to stdout failed");
        break;
      }
    } else {
      if (!sink) {
        // The first frame of every order is a key frame: the configuration
        // units before its picture, and its picture size, configure the container.
        std::vector<uint8_t> parameterSets;
        for (const NalUnit& nal : splitAnnexB(payload, payloadSize)) {
          if (isPictureNal(codec, nal)) break;
          if (!isDecoderConfigNal(codec, nal)) continue;
          parameterSets.insert(parameterSets.end(), {0, 0, 0, 1});
          parameterSets.insert(parameterSets.end(), nal.data, nal.data + nal.size);
        }
        int width = 0, height = 0;
        if (parameterSets.empty() || !probeDimensions(codec, std::vector<uint8_t>(payload, payload + payloadSize),
                                                      width, height)) {
          result = fail(kExitFailed, "stream %u does not start with %s parameter sets; export it with -o -",
                        streamId, codec == Codec::H264 ? "H.264" : "H.265");
          break;
        }
        if ((result = openContainerSink(output, codec, parameterSets, width, height, sink)) != kExitOk) break;
      }
      // The first picture is shown at 0; B-frame streams start decoding before it.
      if (frames == 0) startShift = fields.ptsOffsetMs;
      if (!sink->write(payload, payloadSize, fields.keyPicture, dts - startShift, dts - startShift + fields.ptsOffsetMs,
                       timeline.step())) {
        result = kExitInput;
        break;
      }
    }
    ++frames;
    keyFrames += fields.keyPicture ? 1 : 0;
    bytes += length;
    const auto now = std::chrono::steady_clock::now();
    if (progress && now - lastProgress > std::chrono::milliseconds(250)) {
      const double wall = std::chrono::duration<double>(now - wallStart).count();
      std::fprintf(stderr, "\rexporting: %" PRIu64 " frames, %.1f s of video, %.2f MB/s   ", frames,
                   static_cast<double>(timeline.sourceSpanMs()) / 1000.0, static_cast<double>(bytes) / 1e6 / wall);
      lastProgress = now;
    }
  }
  if (progress) std::fprintf(stderr, "\r%79s\r", "");
  client.deleteSession(static_cast<unsigned>(session));
  if (result == kExitOk && frames == 0) {
    result = fail(kExitNotFound, "nothing is recorded for stream %u between %s and %s", streamId,
                  formatTime(from).c_str(), formatTime(to).c_str());
  }
  if (sink && !sink->close() && result == kExitOk) result = kExitInput;
  sink.reset();
  if (toStdout) std::fflush(stdout);
  if (result != kExitOk) {
    if (!toStdout) std::remove(output.c_str());  // no half-written file looks like a result
    return result;
  }

  const double seconds = static_cast<double>(timeline.sourceSpanMs()) / 1000.0;
  if (options.json()) {
    CJson json;
    json.beginObject()
        .value("stream", streamId)
        .value("output", output)
        .value("order", order)
        .value("frames", frames)
        .value("keyFrames", keyFrames)
        .value("bytes", bytes)
        .value("seconds", seconds)
        .time("first", firstTime)
        .time("last", lastTime)
        .endObject();
    json.print(toStdout ? stderr : stdout);  // stdout carries the frames
  } else if (!toStdout) {
    std::printf("stream %u: exported %" PRIu64 " frames (%" PRIu64 " key, %s order) from %s to %s UTC to %s\n",
                streamId, frames, keyFrames, order.c_str(), formatTime(firstTime).c_str(),
                formatTime(lastTime).c_str(), output.c_str());
  }
  return kExitOk;
}

}  // namespace ZarnMedia
