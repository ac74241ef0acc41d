// Video in and out through the FFmpeg libraries: packet sources for `record`
// (any container or stream libavformat opens, or a synthetic test pattern
// encoded on the fly) and sinks for `export` (MP4/MOV/MKV remuxed, or a raw
// Annex-B elementary stream). Nothing is re-encoded on the way from a store
// to a file.
//
// Times here are milliseconds. A source's times start wherever the input
// starts; the recorder makes them relative.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Frames.h"

namespace ZarnMedia {

// Set by SIGINT/SIGTERM: sources stop reading and commands wind down cleanly.
extern std::atomic<bool> g_interrupted;
void installInterruptHandler();
// FFmpeg's own log: errors only, or everything from info up with --verbose.
void quietFfmpeg(bool verbose);

struct Packet {
  std::vector<uint8_t> data;  // Annex-B, parameter sets in band before key pictures
  bool key = false;
  int64_t dtsMs = 0;
  int64_t ptsMs = 0;
};

class IPacketSource {
 public:
  virtual ~IPacketSource() = default;
  // 1 with a packet, 0 at the end, negative on a read error (message printed).
  virtual int next(Packet& packet) = 0;
  virtual Codec codec() const = 0;
  // Seconds of video, 0 when unknown (a live stream).
  virtual double durationSeconds() const = 0;
  virtual std::string describe() const = 0;
};

// Opens a file or URL with libavformat and picks its best video stream.
// Returns an exit code (after printing why) and leaves `out` empty on failure:
// unreadable input, no video stream, or video that is neither H.264 nor H.265.
int openFileSource(const std::string& url, std::unique_ptr<IPacketSource>& out);

struct SyntheticParams {
  double seconds = 10;
  double fps = 25;
  int width = 320;
  int height = 240;
  int gop = 25;
  Codec codec = Codec::H264;
};
// A moving test pattern encoded with the H.264/H.265 encoder of libavcodec.
int openSyntheticSource(const SyntheticParams& params, std::unique_ptr<IPacketSource>& out);

// Picture size from the parameter sets and first picture of a key packet
// (Annex-B). false when the packet does not reveal it.
bool probeDimensions(Codec codec, const std::vector<uint8_t>& keyPacket, int& width, int& height);

class IVideoSink {
 public:
  virtual ~IVideoSink() = default;
  // One access unit in Annex-B with its times in ms. false on a write error
  // (message printed).
  virtual bool write(const uint8_t* data, size_t size, bool key, int64_t dtsMs, int64_t ptsMs,
                     int64_t durationMs) = 0;
  // Finishes the file. false on a write error (message printed).
  virtual bool close() = 0;
};

enum class SinkKind { Container, AnnexB, Unknown };
// By file extension: .mp4 .mov .mkv remuxed; .h264 .264 .h265 .265 .hevc raw.
SinkKind sinkKindFor(const std::string& path);

// A raw Annex-B file: the access units as they are, one after the other.
int openAnnexBSink(const std::string& path, std::unique_ptr<IVideoSink>& out);
// An MP4/MOV/MKV file. `parameterSets` are the stream's configuration units
// (isDecoderConfigNal) in Annex-B: they become the container's decoder
// configuration, and access units repeating exactly these are written without
// them.
int openContainerSink(const std::string& path, Codec codec, const std::vector<uint8_t>& parameterSets,
                      int width, int height, std::unique_ptr<IVideoSink>& out);

}  // namespace ZarnMedia
