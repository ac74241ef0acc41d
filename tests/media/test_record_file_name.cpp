// Record file names: time strings, bucket names, grammar and validity, the
// listing walk and clips.
#include <gtest/gtest.h>

#include <string>

#include "KanduTime.h"
#include "MediaContext.h"
#include "MediaValues.h"
#include "RecordFileName.h"
#include "TestSupport.h"

using namespace Velto::Zarn;

namespace {

constexpr uint32_t kBegin = 1462147170;      // 2016-05-01 23:59:30 UTC
constexpr uint32_t kEndNextDay = 1462147925;  // 2016-05-02 00:12:05 UTC

RecordFileName record(uint32_t begin, uint32_t end, uint16_t type, uint16_t locks, uint32_t state) {
  RecordFileName r;
  r.streamId = 7;
  r.beginTime = begin;
  r.endTime = r.realEndTime = end;
  r.type = type;
  r.lockCount = locks;
  r.indexState = state;
  return r;
}

std::string fields(const RecordFileName& r) {
  std::string out;
  for (uint64_t v : {uint64_t{r.streamId}, uint64_t{r.beginTime}, uint64_t{r.endTime}, uint64_t{r.type},
                     uint64_t{r.lockCount}, uint64_t{r.indexState}, uint64_t{r.isIndex}, uint64_t{r.realEndTime},
                     uint64_t{r.size}, uint64_t{r.bucketKind}})
    out += std::to_string(v) + ",";
  return out;
}

class StoreUser {  // sets the process-wide store user (the bucket prefix)
 public:
  explicit StoreUser(const std::string& user) { CMediaValues::instance().setStoreUserName(user); }
  ~StoreUser() { CMediaValues::instance().setStoreUserName(m_saved); }

 private:
  std::string m_saved = CMediaValues::instance().storeUserName();
};

}  // namespace

TEST(TimeStrings, DatesAndEndTimes) {
  EXPECT_EQ(formatDate(kBegin), "2016/05/01/235930");
  EXPECT_EQ(formatTime(kEndNextDay), "001205");
  EXPECT_EQ(parseDate("2016/05/01/235930"), kBegin);
  // Loose limits, normalised by the calendar.
  EXPECT_EQ(parseDate("2016/05/01/240000"), kBegin + 30);
  EXPECT_EQ(parseDate("2016/05/00/120000"), parseDate("2016/04/30/120000"));
  EXPECT_EQ(parseTime(kBegin, "001205"), kEndNextDay);
  EXPECT_EQ(parseTime(kBegin, "235930"), kBegin);  // equal: no day added
  EXPECT_EQ(parseTime(kBegin, "235929"), kBegin - 1 + 86400);
  for (const char* bad : {"2016/13/01/000000", "2016/05/32/000000", "2016/05/01/250000", "2016/05/01/235961",
                          "2016/05/01"})
    EXPECT_EQ(parseDate(bad), 0u) << bad;
  EXPECT_EQ(parseTime(kBegin, "0012"), 0u);
  EXPECT_EQ(parseTime(kBegin, "250000"), 0u);
}

TEST(BucketNames, KindsAndTheUserNamePrefix) {
  EXPECT_EQ(bucketName("", 7, BUCKET_KIND_FORGOTTEN), "forgotten_7");
  uint32_t sid = 0;
  uint16_t kind = 9;
  EXPECT_TRUE(parseBucketName("site3_", "site3_media_4294967295", sid, kind));
  EXPECT_EQ(sid, 4294967295u);
  EXPECT_EQ(kind, BUCKET_KIND_MEDIA);
  for (const char* bad : {"media_", "media_7x", "media_-7", "media_4294967296", "media_system", "site3_media_7"})
    EXPECT_FALSE(parseBucketName("", bad, sid, kind)) << bad;
  EXPECT_FALSE(parseBucketName("site3_", "media_7", sid, kind));

  // The user "root" names buckets bare; any other user prefixes its name and "_".
  const RecordFileName rec = record(kBegin, kEndNextDay, 1, 0, 1);
  std::string rootName, siteName;
  RecordFileName back;
  {
    StoreUser root("root");
    EXPECT_EQ(bucketName(7, BUCKET_KIND_MEDIA), "media_7");
    ASSERT_TRUE(generateRecordFileName(rec, rootName));
  }
  StoreUser site("site3");
  EXPECT_EQ(bucketName(7, BUCKET_KIND_MEDIA), "site3_media_7");
  EXPECT_FALSE(parseBucketName("forgotten_7", sid, kind));
  ASSERT_TRUE(generateRecordFileName(rec, siteName));
  EXPECT_EQ(siteName, "site3_" + rootName);
  EXPECT_TRUE(parseRecordFileName(siteName, back));
  EXPECT_FALSE(parseRecordFileName(rootName, back));
}

TEST(RecordNames, RoundTripsAcrossMidnightAndMonthAndYearEnds) {
  const auto at = [](int y, int mo, int d, int h, int mi) {
    return static_cast<uint32_t>(Velto::Kandu::CTime::makeTime(y, mo, d, h, mi, 0));
  };
  RecordFileName forgotten = record(at(2016, 12, 31, 23, 50), at(2017, 1, 1, 0, 10), 5, 0, 3);
  forgotten.bucketKind = BUCKET_KIND_FORGOTTEN;
  RecordFileName index = record(kBegin, kEndNextDay, 1, 3, 3);
  index.isIndex = 1;
  const std::pair<RecordFileName, std::string> cases[] = {
      {record(kBegin, kEndNextDay, 1, 2, 1), "media_7/2016/05/01/235930_001205_1_2_1.qrv"},
      {forgotten, "forgotten_7/2016/12/31/235000_001000_5_0_3.qrv"},
      {record(at(2016, 2, 29, 23, 0), at(2016, 3, 1, 0, 30), 5, 0, 3), "media_7/2016/02/29/230000_003000_5_0_3.qrv"},
      {record(kBegin, kBegin, 65535, 255, 4), "media_7/2016/05/01/235930_235930_65535_255_4.qrv"},
      {record(kBegin, 0, 65535, 0, 0), "media_7/2016/05/01/235930_65535.qrv"},  // open
      // An index file never shows locks or state.
      {index, "media_7/2016/05/01/235930_001205_1_0_0.index"},
  };
  for (const auto& [rec, expected] : cases) {
    SCOPED_TRACE(expected);
    std::string name;
    ASSERT_TRUE(generateRecordFileName("", rec, name));
    EXPECT_EQ(name, expected);
    RecordFileName back = record(1, 1, 1, 1, 1);
    back.size = 99;
    ASSERT_TRUE(parseRecordFileName("", name, back));
    RecordFileName shown = rec;
    if (rec.isIndex) shown.lockCount = shown.indexState = 0;
    EXPECT_EQ(fields(back), fields(shown));
  }
}

TEST(RecordNames, MalformedNamesFailAndZeroTheRecord) {
  for (const char* bad : {
           "media_7/2016/05/01/235930_001205_1.qrv",          // 2 underscores
           "media_7/2016/05/01/235930_001205_1_2.qrv",        // 3
           "media_7/2016/05/01/235930_001205_1_2_1_0.qrv",    // 5
           "media_7/2016/05/01/235930_001205_1_2_1.QRV",      // token case
           "media_7/2016/05/01/235930_001205_1_2_1.Index",
           "media_7/2016/05/01/235930_001205_1_2_1",          // no token
           "media_7/2016/05/01/235930_001205_1_256_1.qrv",    // lock count 256
           "media_7/2016/05/01/235930_001205_65536_0_1.qrv",  // stream type 65536
           "media_7/2016/05/01/235930_65536.qrv",
           "media_7/2016/5/01/235930_001205_1_2_1.qrv",       // short date
           "media7/2016/05/01/235930_001205_1_2_1.qrv",
       }) {
    RecordFileName rec = record(9, 9, 9, 9, 9);
    EXPECT_FALSE(parseRecordFileName("", bad, rec)) << bad;
    EXPECT_EQ(fields(rec), fields(RecordFileName())) << bad;
  }
}

TEST(RecordValidity, Rules) {
  std::string name = "untouched";
  for (const RecordFileName& rec : {record(0, kBegin, 0, 0, 0),           // begin 0
                                    record(kBegin, 0, 0, 1, 0),           // open and locked
                                    record(kBegin, 0, 0, 0, 1),           // open and indexed
                                    record(kBegin, kBegin - 1, 0, 0, 0)})  // ends before it begins
    EXPECT_FALSE(generateRecordFileName("", rec, name));
  EXPECT_EQ(name, "untouched");
  RecordFileName rec;  // a begin date the parser lets through as 0
  ASSERT_TRUE(parseRecordFileName("", "media_7/2016/05/01/2x5930_3.qrv", rec));
  EXPECT_FALSE(isValidRecordFileName(rec));
}

TEST(RecordListing, NextValidEntrySkipsIndexAndUnsyncedFiles) {
  const CFileList list = {
      {"2016/05/01/235930_001205_1_0_3.index", 10},
      {"2016/05/01/235930_001205_1_0_3.qrv", 1000},
      {"2106/02/07/062815_000000_1_0_1.qrv", 12},  // its end wraps below its begin
      {"2016/05/02/0x0000_3.qrv", 13},             // begin 0
      {"notes.txt", 14},
      {"2016/05/02/010000_2.qrv", 2000},           // open
  };
  StoreUser root("root");
  size_t cursor = 0;
  RecordFileName rec;
  ASSERT_TRUE(nextValidRecordFile("media_7", list, cursor, rec));
  EXPECT_EQ(cursor, 2u);
  EXPECT_EQ(rec.size, 1000u);
  ASSERT_TRUE(nextValidRecordFile("media_7", list, cursor, rec));
  EXPECT_EQ(rec.endTime, 0u);
  EXPECT_EQ(rec.size, 2000u);
  EXPECT_FALSE(nextValidRecordFile("media_7", list, cursor, rec));
}

TEST(RecordClips, FromRecords) {
  RecordFileName rec = record(kBegin, kEndNextDay, 3, 2, 1);
  rec.realEndTime = kEndNextDay + 5;
  rec.bucketKind = BUCKET_KIND_FORGOTTEN;
  const RecordClip clip = toRecordClip(rec);
  EXPECT_EQ(clip.endTime, kEndNextDay + 5);  // the clip end, not the name's
  EXPECT_EQ(clip.locked + clip.forgotten, 2);
  for (uint32_t state : {0u, 1u, 2u, 3u, 4u}) {
    rec.indexState = state;
    EXPECT_EQ(toRecordClip(rec).missing, (state == 1 || state == 3) ? 0 : 1) << state;
  }

  RecordClipEx ex{};
  StoreUser longUser(std::string(300, 'u'));  // the name is cut at 255 characters
  ASSERT_TRUE(toRecordClipEx(rec, ex));
  EXPECT_EQ(std::string(ex.fileName), std::string(255, 'u'));
  rec.beginTime = 0;
  EXPECT_FALSE(toRecordClipEx(rec, ex));
  EXPECT_STREQ(ex.fileName, "");
}
