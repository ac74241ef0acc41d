// Unit tests of zarn-media's frame carriage and command-line plumbing. The
// frames the tool builds are checked with the library's own frame parsing, so
// the tool and the store agree on every head field.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "Cli.h"
#include "Frames.h"
#include "KanduTime.h"
#include "VeltoFrame.h"

namespace {

using namespace ZarnMedia;

// Calendar seconds from the runtime's own conversion, independent of the
// C library calls the tool makes.
int64_t utc(int y, int mo, int d, int h, int mi, int s) { return Velto::Kandu::CTime::makeTime(y, mo, d, h, mi, s); }

TEST(ZarnMediaFrames, PackedTimeRoundTripsAndMatchesTheLibrary) {
  for (int64_t t : {utc(2000, 1, 1, 0, 0, 0), utc(2024, 2, 29, 23, 59, 59), utc(2024, 5, 1, 12, 0, 1),
                    utc(2063, 12, 31, 23, 59, 59)}) {
    const uint32_t packed = packTime(t);
    ASSERT_NE(packed, 0u) << t;
    EXPECT_EQ(unpackTime(packed), t);
    EXPECT_EQ(static_cast<int64_t>(Velto::Zarn::unpackFrameTime(packed)), t);
  }
  EXPECT_EQ(packTime(utc(2024, 5, 1, 12, 34, 56)), Velto::Zarn::packFrameTime(2024, 5, 1, 12, 34, 56));
  EXPECT_EQ(packTime(utc(1999, 12, 31, 23, 59, 59)), 0u);
  EXPECT_EQ(packTime(utc(2064, 1, 1, 0, 0, 0)), 0u);
}

TEST(ZarnMediaFrames, BuiltFramePassesTheLibraryChecks) {
  const std::vector<uint8_t> payload = {0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21};
  FrameFields in;
  in.key = true;
  in.keyPicture = true;
  in.sequence = 41;
  in.epochSeconds = utc(2024, 5, 1, 12, 0, 2);
  in.msStamp = 65535;
  in.ptsOffsetMs = 80;
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(buildFrame(in, payload.data(), payload.size(), bytes));
  ASSERT_EQ(bytes.size(), payload.size() + kFrameOverhead);

  EXPECT_TRUE(Velto::Zarn::checkFrameHead(bytes.data(), 4194304));
  EXPECT_TRUE(Velto::Zarn::checkFrameTail(bytes.data() + bytes.size() - 8));
  EXPECT_EQ(Velto::Zarn::frameTime(bytes.data()), static_cast<uint32_t>(in.epochSeconds));
  Velto::Zarn::VeltoFrame frame;
  frame.attach(bytes.data());
  EXPECT_TRUE(Velto::Zarn::isKeyFrame(frame.head));
  EXPECT_EQ(frame.head.length, bytes.size());
  EXPECT_EQ(frame.head.extLength, 0);
  EXPECT_EQ(0, std::memcmp(frame.payload, payload.data(), payload.size()));
  uint32_t tailLength = 0;
  std::memcpy(&tailLength, bytes.data() + bytes.size() - 4, 4);
  EXPECT_EQ(tailLength, bytes.size());

  const FrameFields out = readFrameFields(frame.head);
  EXPECT_TRUE(out.key);
  EXPECT_TRUE(out.keyPicture);
  EXPECT_EQ(out.sequence, 41u);
  EXPECT_EQ(out.epochSeconds, in.epochSeconds);
  EXPECT_EQ(out.msStamp, 65535);
  EXPECT_EQ(out.ptsOffsetMs, 80);
}

TEST(ZarnMediaFrames, DemotedKeyPictureAndOffsetShareHeadBytesSixAndSeven) {
  std::vector<uint8_t> bytes;
  FrameFields in;
  in.keyPicture = true;  // a key picture recorded as a P frame
  in.epochSeconds = utc(2024, 5, 1, 12, 0, 0);
  in.ptsOffsetMs = 40000;  // above the 15-bit field: clamped
  ASSERT_TRUE(buildFrame(in, nullptr, 0, bytes));
  Velto::Zarn::VeltoFrame frame;
  frame.attach(bytes.data());
  EXPECT_FALSE(Velto::Zarn::isKeyFrame(frame.head));
  EXPECT_TRUE(Velto::Zarn::checkFrameHead(bytes.data(), 4194304));
  const FrameFields out = readFrameFields(frame.head);
  EXPECT_FALSE(out.key);
  EXPECT_TRUE(out.keyPicture);
  EXPECT_EQ(out.ptsOffsetMs, kMaxPtsOffsetMs);

  in.keyPicture = false;
  in.ptsOffsetMs = 0x1234;
  ASSERT_TRUE(buildFrame(in, nullptr, 0, bytes));
  frame.attach(bytes.data());
  EXPECT_FALSE(readFrameFields(frame.head).keyPicture);
  EXPECT_EQ(readFrameFields(frame.head).ptsOffsetMs, 0x1234);

  in.epochSeconds = utc(2064, 1, 1, 0, 0, 0);
  EXPECT_FALSE(buildFrame(in, nullptr, 0, bytes));
}

TEST(ZarnMediaFrames, SplitsAnnexBAtBothStartCodeLengths) {
  const std::vector<uint8_t> data = {0xAA, 0, 0, 0, 1, 0x67, 1, 2, 0, 0, 1, 0x68, 3, 0, 0, 0, 1, 0x65, 4, 5, 6};
  const auto units = splitAnnexB(data.data(), data.size());
  ASSERT_EQ(units.size(), 3u);
  EXPECT_EQ(units[0].size, 3u);
  EXPECT_EQ(units[0].data[0], 0x67);
  EXPECT_EQ(units[1].size, 2u);  // the zero before a 4-byte start code is not part of the unit
  EXPECT_EQ(units[1].data[0], 0x68);
  EXPECT_EQ(units[2].size, 4u);
  EXPECT_EQ(units[2].data[3], 6);
  EXPECT_TRUE(splitAnnexB(data.data(), 4).empty());
  EXPECT_TRUE(splitAnnexB(nullptr, 0).empty());
}

TEST(ZarnMediaFrames, ClassifiesUnitsPerCodec) {
  auto unit = [](std::initializer_list<uint8_t> bytes) {
    static std::vector<std::vector<uint8_t>> keep;
    keep.emplace_back(bytes);
    return NalUnit{keep.back().data(), keep.back().size()};
  };
  EXPECT_TRUE(isDecoderConfigNal(Codec::H264, unit({0x67})));   // SPS
  EXPECT_TRUE(isDecoderConfigNal(Codec::H264, unit({0x68})));   // PPS
  EXPECT_FALSE(isDecoderConfigNal(Codec::H264, unit({0x06})));  // SEI stays in the picture
  EXPECT_TRUE(isPictureNal(Codec::H264, unit({0x65})));         // IDR slice
  EXPECT_TRUE(isPictureNal(Codec::H264, unit({0x41})));         // non-IDR slice
  EXPECT_FALSE(isPictureNal(Codec::H264, unit({0x09})));        // access unit delimiter
  EXPECT_TRUE(isDecoderConfigNal(Codec::H265, unit({0x40, 0x01})));   // VPS
  EXPECT_TRUE(isDecoderConfigNal(Codec::H265, unit({0x42, 0x01})));   // SPS
  EXPECT_TRUE(isDecoderConfigNal(Codec::H265, unit({0x44, 0x01})));   // PPS
  EXPECT_TRUE(isDecoderConfigNal(Codec::H265, unit({0x4E, 0x01})));   // prefix SEI
  EXPECT_TRUE(isPictureNal(Codec::H265, unit({0x26, 0x01})));         // IDR_W_RADL
  EXPECT_TRUE(isPictureNal(Codec::H265, unit({0x2A, 0x01})));         // CRA
  EXPECT_FALSE(isPictureNal(Codec::H265, unit({0x46, 0x01})));        // access unit delimiter
  EXPECT_EQ(nalType(Codec::H264, NalUnit{nullptr, 0}), -1);
}

TEST(ZarnMediaCli, ParsesTimesStrictly) {
  int64_t t = 0;
  ASSERT_TRUE(parseTime("2024-05-01 12:00:01", t));
  EXPECT_EQ(t, utc(2024, 5, 1, 12, 0, 1));
  ASSERT_TRUE(parseTime("2024-05-01T12:00:01", t));
  EXPECT_EQ(t, utc(2024, 5, 1, 12, 0, 1));
  ASSERT_TRUE(parseTime("1714564801", t));
  EXPECT_EQ(t, 1714564801);
  EXPECT_EQ(formatTime(1714564801), "2024-05-01 12:00:01");
  for (const char* bad : {"2024-02-30 00:00:00", "2024-05-01", "2024-05-01 24:00:00", "2024-05-01 12:00:01x",
                          "-5", "", "2024/05/01 12:00:00", "99999999999"}) {
    EXPECT_FALSE(parseTime(bad, t)) << bad;
  }
}

TEST(ZarnMediaCli, OptionsTakeValuesFlagsAndPositionals) {
  COptions options({"stream", "from"}, {"aligned"});
  std::vector<std::string> args = {"--stream", "7", "--from=2024-05-01 12:00:00", "--aligned", "in.mp4", "--json"};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  ASSERT_TRUE(options.parse(static_cast<int>(argv.size()), argv.data()));
  EXPECT_EQ(options.value("stream"), "7");
  EXPECT_TRUE(options.has("aligned"));
  EXPECT_TRUE(options.json());
  EXPECT_EQ(options.store(), "./zarn-store");
  ASSERT_EQ(options.positional().size(), 1u);
  EXPECT_EQ(options.positional()[0], "in.mp4");
  uint64_t stream = 0;
  EXPECT_TRUE(options.getUnsigned("stream", stream, 100));
  EXPECT_EQ(stream, 7u);
  int64_t from = 0;
  EXPECT_TRUE(options.getTime("from", from));
  EXPECT_EQ(from, utc(2024, 5, 1, 12, 0, 0));
  EXPECT_FALSE(options.getUnsigned("stream", stream, 5));  // above the maximum

  for (std::vector<std::string> badArgs : std::vector<std::vector<std::string>>{
           {"--bogus"}, {"--stream"}, {"--aligned=1"}}) {
    COptions bad({"stream"}, {"aligned"});
    std::vector<char*> badArgv;
    for (auto& a : badArgs) badArgv.push_back(a.data());
    EXPECT_FALSE(bad.parse(static_cast<int>(badArgv.size()), badArgv.data())) << badArgs[0];
  }
}

TEST(ZarnMediaCli, JsonPlacesCommasAndEscapes) {
  CJson json;
  json.beginObject()
      .value("name", std::string("a\"b\\c\n"))
      .value("n", int64_t{-3})
      .value("ok", true)
      .beginArray("list")
      .value(nullptr, uint64_t{1})
      .value(nullptr, uint64_t{2})
      .endArray()
      .time("t", 1714564801)
      .endObject();
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  json.print(out);
  std::fclose(out);
  EXPECT_STREQ(text,
               "{\"name\":\"a\\\"b\\\\c\\n\",\"n\":-3,\"ok\":true,\"list\":[1,2],"
               "\"t\":{\"utc\":\"2024-05-01 12:00:01\",\"epoch\":1714564801}}\n");
  std::free(text);
}

}  // namespace
