#include "MediaIo.h"

#include <csignal>
#include <deque>
#include <cstdio>
#include <cstring>

#include "Cli.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

namespace ZarnMedia {

std::atomic<bool> g_interrupted{false};

namespace {

extern "C" void onSignal(int) { g_interrupted.store(true); }

std::string avError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

// Lets a blocking libavformat read (a stalled network stream) give up on Ctrl-C.
int interruptCallback(void*) { return g_interrupted.load() ? 1 : 0; }

constexpr AVRational kMs{1, 1000};

class CFileSource : public IPacketSource {
 public:
  ~CFileSource() override {
    av_packet_free(&m_packet);
    av_bsf_free(&m_bsf);
    avformat_close_input(&m_format);
  }

  int open(const std::string& url) {
    m_url = url;
    avformat_network_init();
    m_format = avformat_alloc_context();
    m_format->interrupt_callback.callback = interruptCallback;
    int rc = avformat_open_input(&m_format, url.c_str(), nullptr, nullptr);
    if (rc < 0) return fail(kExitInput, "cannot read '%s': %s", url.c_str(), avError(rc).c_str());
    rc = avformat_find_stream_info(m_format, nullptr);
    if (rc < 0) return fail(kExitInput, "cannot read '%s': %s", url.c_str(), avError(rc).c_str());
    m_stream = av_find_best_stream(m_format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (m_stream < 0) return fail(kExitInput, "'%s' is not video: it holds no video stream", url.c_str());
    AVStream* st = m_format->streams[m_stream];
    const AVCodecID id = st->codecpar->codec_id;
    if (id != AV_CODEC_ID_H264 && id != AV_CODEC_ID_HEVC) {
      return fail(kExitInput, "'%s' holds %s video; only H.264 and H.265 can be recorded", url.c_str(),
                  avcodec_get_name(id));
    }
    m_codec = id == AV_CODEC_ID_H264 ? Codec::H264 : Codec::H265;
    // Packets from MP4/MKV carry length-prefixed NAL units and their parameter
    // sets in the container; the filter rewrites them to start codes with the
    // sets in band. Annex-B input (MPEG-TS, raw streams, RTSP) passes unchanged.
    const AVBitStreamFilter* filter = av_bsf_get_by_name(id == AV_CODEC_ID_H264 ? "h264_mp4toannexb" : "hevc_mp4toannexb");
    if (filter == nullptr || av_bsf_alloc(filter, &m_bsf) < 0) return fail(kExitInput, "no Annex-B filter in this FFmpeg");
    avcodec_parameters_copy(m_bsf->par_in, st->codecpar);
    m_bsf->time_base_in = st->time_base;
    rc = av_bsf_init(m_bsf);
    if (rc < 0) return fail(kExitInput, "cannot convert '%s' to Annex-B: %s", url.c_str(), avError(rc).c_str());
    if (st->avg_frame_rate.num > 0 && st->avg_frame_rate.den > 0) {
      m_frameMs = av_rescale_q(1, av_inv_q(st->avg_frame_rate), kMs);
    }
    if (m_frameMs <= 0) m_frameMs = 40;
    if (m_format->duration > 0) m_duration = static_cast<double>(m_format->duration) / AV_TIME_BASE;
    m_packet = av_packet_alloc();
    return kExitOk;
  }

  // Containers that store no decode times (Matroska, raw streams) leave the
  // first packets of a B-frame stream without one: they get times one frame
  // apart before the first packet that has one. Times then only move forward.
  int next(Packet& packet) override {
    while (m_queue.empty() || !m_queue.front().hasDts) {
      size_t known = 0;
      while (known < m_queue.size() && !m_queue[known].hasDts) ++known;
      if (known < m_queue.size()) {
        for (size_t i = 0; i < known; ++i) {
          m_queue[i].packet.dtsMs = m_queue[known].packet.dtsMs - static_cast<int64_t>(known - i) * m_frameMs;
          m_queue[i].hasDts = true;
        }
        break;
      }
      RawPacket raw;
      const int rc = m_ended ? 0 : pull(raw);
      if (rc < 0) return rc;
      if (rc == 0) m_ended = true;
      if (rc == 0 || m_queue.size() >= kMaxDtsLookahead) {
        if (m_queue.empty()) return 0;
        // No decode time anywhere ahead: presentation times, else one frame
        // after the previous packet.
        RawPacket& front = m_queue.front();
        front.packet.dtsMs = front.hasPts ? front.packet.ptsMs : m_lastDts + m_frameMs;
        front.hasDts = true;
      }
      if (rc == 1) m_queue.push_back(std::move(raw));
    }
    packet = std::move(m_queue.front().packet);
    const bool hasPts = m_queue.front().hasPts;
    m_queue.pop_front();
    if (m_havePrevious && packet.dtsMs <= m_lastDts) packet.dtsMs = m_lastDts + 1;
    if (!hasPts || packet.ptsMs < packet.dtsMs) packet.ptsMs = packet.dtsMs;
    m_lastDts = packet.dtsMs;
    m_havePrevious = true;
    return 1;
  }

 private:
  struct RawPacket {
    Packet packet;
    bool hasDts = false;
    bool hasPts = false;
  };
  static constexpr size_t kMaxDtsLookahead = 32;

  int pull(RawPacket& raw) {
    for (;;) {
      int rc = av_bsf_receive_packet(m_bsf, m_packet);
      if (rc == 0) {
        fill(raw);
        av_packet_unref(m_packet);
        return 1;
      }
      if (rc == AVERROR_EOF) return 0;
      if (rc != AVERROR(EAGAIN)) return fail(-1, "Annex-B conversion failed: %s", avError(rc).c_str());
      if (m_flushed) return 0;
      if (g_interrupted.load()) return 0;
      rc = av_read_frame(m_format, m_packet);
      if (rc == AVERROR_EOF || (rc < 0 && g_interrupted.load())) {
        m_flushed = true;
        av_bsf_send_packet(m_bsf, nullptr);
        continue;
      }
      if (rc < 0) {
        fail(-1, "reading '%s' failed: %s", m_url.c_str(), avError(rc).c_str());
        return -1;
      }
      if (m_packet->stream_index != m_stream) {
        av_packet_unref(m_packet);
        continue;
      }
      rc = av_bsf_send_packet(m_bsf, m_packet);
      av_packet_unref(m_packet);
      if (rc < 0) {
        fail(-1, "Annex-B conversion failed: %s", avError(rc).c_str());
        return -1;
      }
    }
  }

  void fill(RawPacket& raw) {
    const AVRational tb = m_format->streams[m_stream]->time_base;
    raw.packet.data.assign(m_packet->data, m_packet->data + m_packet->size);
    raw.packet.key = (m_packet->flags & AV_PKT_FLAG_KEY) != 0;
    raw.hasDts = m_packet->dts != AV_NOPTS_VALUE;
    raw.hasPts = m_packet->pts != AV_NOPTS_VALUE;
    raw.packet.dtsMs = raw.hasDts ? av_rescale_q(m_packet->dts, tb, kMs) : 0;
    raw.packet.ptsMs = raw.hasPts ? av_rescale_q(m_packet->pts, tb, kMs) : 0;
  }

 public:
  Codec codec() const override { return m_codec; }
  double durationSeconds() const override { return m_duration; }
  std::string describe() const override { return m_url; }

 private:
  std::string m_url;
  AVFormatContext* m_format = nullptr;
  AVBSFContext* m_bsf = nullptr;
  AVPacket* m_packet = nullptr;
  int m_stream = -1;
  Codec m_codec = Codec::H264;
  int64_t m_frameMs = 40;
  double m_duration = 0;
  int64_t m_lastDts = 0;
  bool m_havePrevious = false;
  bool m_flushed = false;
  bool m_ended = false;
  std::deque<RawPacket> m_queue;
};

class CSyntheticSource : public IPacketSource {
 public:
  explicit CSyntheticSource(const SyntheticParams& params) : m_params(params) {}
  ~CSyntheticSource() override {
    av_packet_free(&m_packet);
    av_frame_free(&m_frame);
    avcodec_free_context(&m_encoder);
  }

  int open() {
    const AVCodec* codec = avcodec_find_encoder(m_params.codec == Codec::H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    if (codec == nullptr) {
      return fail(kExitInput, "this FFmpeg has no %s encoder for --synthetic",
                  m_params.codec == Codec::H264 ? "H.264" : "H.265");
    }
    m_encoder = avcodec_alloc_context3(codec);
    m_encoder->width = m_params.width;
    m_encoder->height = m_params.height;
    m_encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    // A millisecond time base makes packet times exact for any frame rate.
    m_encoder->time_base = kMs;
    m_encoder->framerate = av_d2q(m_params.fps, 1000);
    m_encoder->gop_size = m_params.gop;
    m_encoder->max_b_frames = 0;
    m_encoder->bit_rate = 0;
    av_opt_set(m_encoder->priv_data, "preset", "ultrafast", 0);
    av_opt_set(m_encoder->priv_data, "tune", "zerolatency", 0);
    av_opt_set(m_encoder->priv_data, "x265-params", "log-level=error", 0);
    int rc = avcodec_open2(m_encoder, codec, nullptr);
    if (rc < 0) return fail(kExitInput, "cannot start the %s encoder: %s", codec->name, avError(rc).c_str());
    m_frame = av_frame_alloc();
    m_frame->format = AV_PIX_FMT_YUV420P;
    m_frame->width = m_params.width;
    m_frame->height = m_params.height;
    if (av_frame_get_buffer(m_frame, 0) < 0) return fail(kExitInput, "out of memory");
    m_packet = av_packet_alloc();
    m_total = static_cast<int64_t>(m_params.seconds * m_params.fps + 0.5);
    return kExitOk;
  }

  int next(Packet& packet) override {
    for (;;) {
      int rc = avcodec_receive_packet(m_encoder, m_packet);
      if (rc == 0) {
        packet.data.assign(m_packet->data, m_packet->data + m_packet->size);
        packet.key = (m_packet->flags & AV_PKT_FLAG_KEY) != 0;
        packet.dtsMs = m_packet->dts;
        packet.ptsMs = m_packet->pts;
        av_packet_unref(m_packet);
        return 1;
      }
      if (rc == AVERROR_EOF) return 0;
      if (rc != AVERROR(EAGAIN)) return fail(-1, "encoding failed: %s", avError(rc).c_str());
      if (m_index >= m_total || g_interrupted.load()) {
        if (m_index == m_total + 1) return 0;
        m_index = m_total + 1;
        avcodec_send_frame(m_encoder, nullptr);
        continue;
      }
      drawPattern();
      m_frame->pts = static_cast<int64_t>(static_cast<double>(m_index) * 1000.0 / m_params.fps + 0.5);
      ++m_index;
      rc = avcodec_send_frame(m_encoder, m_frame);
      if (rc < 0) return fail(-1, "encoding failed: %s", avError(rc).c_str());
    }
  }

  Codec codec() const override { return m_params.codec; }
  double durationSeconds() const override { return m_params.seconds; }
  std::string describe() const override { return "synthetic test pattern"; }

 private:
  // Diagonal luma bands sliding right and a chroma tint that changes every second.
  void drawPattern() {
    av_frame_make_writable(m_frame);
    const int shift = static_cast<int>(m_index * 4);
    for (int y = 0; y < m_params.height; ++y) {
      uint8_t* row = m_frame->data[0] + static_cast<ptrdiff_t>(y) * m_frame->linesize[0];
      for (int x = 0; x < m_params.width; ++x) row[x] = static_cast<uint8_t>(((x + y - shift) & 0x3F) * 3 + 16);
    }
    const uint8_t tint = static_cast<uint8_t>(64 + (static_cast<int64_t>(m_index / m_params.fps) * 37) % 128);
    for (int plane = 1; plane < 3; ++plane) {
      for (int y = 0; y < m_params.height / 2; ++y) {
        std::memset(m_frame->data[plane] + static_cast<ptrdiff_t>(y) * m_frame->linesize[plane],
                    plane == 1 ? tint : 255 - tint, static_cast<size_t>(m_params.width / 2));
      }
    }
  }

  SyntheticParams m_params;
  AVCodecContext* m_encoder = nullptr;
  AVFrame* m_frame = nullptr;
  AVPacket* m_packet = nullptr;
  int64_t m_index = 0;
  int64_t m_total = 0;
};

class CAnnexBSink : public IVideoSink {
 public:
  ~CAnnexBSink() override {
    if (m_file != nullptr) std::fclose(m_file);
  }
  int open(const std::string& path) {
    m_path = path;
    m_file = std::fopen(path.c_str(), "wb");
    if (m_file == nullptr) return fail(kExitInput, "cannot write '%s': %s", path.c_str(), std::strerror(errno));
    return kExitOk;
  }
  bool write(const uint8_t* data, size_t size, bool, int64_t, int64_t, int64_t) override {
    if (std::fwrite(data, 1, size, m_file) == size) return true;
    fail(kExitInput, "writing '%s' failed: %s", m_path.c_str(), std::strerror(errno));
    return false;
  }
  bool close() override {
    const bool ok = std::fclose(m_file) == 0;
    m_file = nullptr;
    if (!ok) fail(kExitInput, "writing '%s' failed: %s", m_path.c_str(), std::strerror(errno));
    return ok;
  }

 private:
  std::string m_path;
  FILE* m_file = nullptr;
};

class CContainerSink : public IVideoSink {
 public:
  ~CContainerSink() override {
    if (m_format != nullptr) {
      if (m_open) avio_closep(&m_format->pb);
      avformat_free_context(m_format);
    }
    av_packet_free(&m_packet);
  }

  int open(const std::string& path, Codec codec, const std::vector<uint8_t>& parameterSets, int width, int height) {
    m_path = path;
    m_codec = codec;
    for (const NalUnit& nal : splitAnnexB(parameterSets.data(), parameterSets.size())) {
      m_parameterSets.emplace_back(nal.data, nal.data + nal.size);
    }
    int rc = avformat_alloc_output_context2(&m_format, nullptr, nullptr, path.c_str());
    if (rc < 0) return fail(kExitUsage, "no container format for '%s': %s", path.c_str(), avError(rc).c_str());
    AVStream* st = avformat_new_stream(m_format, nullptr);
    st->time_base = kMs;
    st->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    st->codecpar->codec_id = codec == Codec::H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC;
    st->codecpar->width = width;
    st->codecpar->height = height;
    // Annex-B parameter sets as extradata: the MP4 and Matroska muxers turn
    // them into avcC/hvcC and the access units into length-prefixed units.
    st->codecpar->extradata = static_cast<uint8_t*>(av_mallocz(parameterSets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    std::memcpy(st->codecpar->extradata, parameterSets.data(), parameterSets.size());
    st->codecpar->extradata_size = static_cast<int>(parameterSets.size());
    rc = avio_open(&m_format->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (rc < 0) return fail(kExitInput, "cannot write '%s': %s", path.c_str(), avError(rc).c_str());
    m_open = true;
    rc = avformat_write_header(m_format, nullptr);
    if (rc < 0) return fail(kExitInput, "cannot start '%s': %s", path.c_str(), avError(rc).c_str());
    m_packet = av_packet_alloc();
    return kExitOk;
  }

  bool write(const uint8_t* data, size_t size, bool key, int64_t dtsMs, int64_t ptsMs, int64_t durationMs) override {
    // Units equal to the decoder configuration are dropped: the container
    // holds them once, as a file straight from an encoder would.
    m_unit.clear();
    for (const NalUnit& nal : splitAnnexB(data, size)) {
      if (isDecoderConfigNal(m_codec, nal) && isKnownParameterSet(nal)) continue;
      static const uint8_t kStartCode[4] = {0, 0, 0, 1};
      m_unit.insert(m_unit.end(), kStartCode, kStartCode + 4);
      m_unit.insert(m_unit.end(), nal.data, nal.data + nal.size);
    }
    if (m_unit.empty()) return true;
    if (av_new_packet(m_packet, static_cast<int>(m_unit.size())) < 0) {
      fail(kExitFailed, "out of memory");
      return false;
    }
    std::memcpy(m_packet->data, m_unit.data(), m_unit.size());
    m_packet->dts = dtsMs;
    m_packet->pts = ptsMs;
    m_packet->duration = durationMs;
    m_packet->flags = key ? AV_PKT_FLAG_KEY : 0;
    m_packet->stream_index = 0;
    av_packet_rescale_ts(m_packet, kMs, m_format->streams[0]->time_base);
    const int rc = av_write_frame(m_format, m_packet);
    av_packet_unref(m_packet);
    if (rc < 0) {
      fail(kExitInput, "writing '%s' failed: %s", m_path.c_str(), avError(rc).c_str());
      return false;
    }
    return true;
  }

  bool close() override {
    int rc = av_write_trailer(m_format);
    int rc2 = avio_closep(&m_format->pb);
    m_open = false;
    if (rc < 0 || rc2 < 0) {
      fail(kExitInput, "finishing '%s' failed: %s", m_path.c_str(), avError(rc < 0 ? rc : rc2).c_str());
      return false;
    }
    return true;
  }

 private:
  bool isKnownParameterSet(const NalUnit& nal) const {
    for (const auto& known : m_parameterSets) {
      if (known.size() == nal.size && std::memcmp(known.data(), nal.data, nal.size) == 0) return true;
    }
    return false;
  }

  std::string m_path;
  Codec m_codec = Codec::H264;
  std::vector<std::vector<uint8_t>> m_parameterSets;
  std::vector<uint8_t> m_unit;
  AVFormatContext* m_format = nullptr;
  AVPacket* m_packet = nullptr;
  bool m_open = false;
};

bool endsWith(const std::string& text, const char* suffix) {
  const size_t n = std::strlen(suffix);
  if (text.size() < n) return false;
  for (size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(text[text.size() - n + i])) != suffix[i]) return false;
  }
  return true;
}

}  // namespace

void quietFfmpeg(bool verbose) { av_log_set_level(verbose ? AV_LOG_INFO : AV_LOG_ERROR); }

void installInterruptHandler() {
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
}

int openFileSource(const std::string& url, std::unique_ptr<IPacketSource>& out) {
  auto source = std::make_unique<CFileSource>();
  const int rc = source->open(url);
  if (rc == kExitOk) out = std::move(source);
  return rc;
}

int openSyntheticSource(const SyntheticParams& params, std::unique_ptr<IPacketSource>& out) {
  auto source = std::make_unique<CSyntheticSource>(params);
  const int rc = source->open();
  if (rc == kExitOk) out = std::move(source);
  return rc;
}

bool probeDimensions(Codec codec, const std::vector<uint8_t>& keyPacket, int& width, int& height) {
  const AVCodecID id = codec == Codec::H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC;
  AVCodecParserContext* parser = av_parser_init(id);
  AVCodecContext* context = avcodec_alloc_context3(nullptr);
  bool found = false;
  if (parser != nullptr && context != nullptr) {
    parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
    // The parser may read past the end by the padding size.
    std::vector<uint8_t> padded(keyPacket);
    padded.resize(keyPacket.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    uint8_t* out = nullptr;
    int outSize = 0;
    av_parser_parse2(parser, context, &out, &outSize, padded.data(), static_cast<int>(keyPacket.size()),
                     AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    width = parser->width > 0 ? parser->width : context->width;
    height = parser->height > 0 ? parser->height : context->height;
    found = width > 0 && height > 0;
  }
  avcodec_free_context(&context);
  if (parser != nullptr) av_parser_close(parser);
  return found;
}

SinkKind sinkKindFor(const std::string& path) {
  for (const char* ext : {".mp4", ".mov", ".mkv"}) {
    if (endsWith(path, ext)) return SinkKind::Container;
  }
  for (const char* ext : {".h264", ".264", ".h265", ".265", ".hevc"}) {
    if (endsWith(path, ext)) return SinkKind::AnnexB;
  }
  return SinkKind::Unknown;
}

int openAnnexBSink(const std::string& path, std::unique_ptr<IVideoSink>& out) {
  auto sink = std::make_unique<CAnnexBSink>();
  const int rc = sink->open(path);
  if (rc == kExitOk) out = std::move(sink);
  return rc;
}

int openContainerSink(const std::string& path, Codec codec, const std::vector<uint8_t>& parameterSets, int width,
                      int height, std::unique_ptr<IVideoSink>& out) {
  auto sink = std::make_unique<CContainerSink>();
  const int rc = sink->open(path, codec, parameterSets, width, height);
  if (rc == kExitOk) out = std::move(sink);
  return rc;
}

}  // namespace ZarnMedia
