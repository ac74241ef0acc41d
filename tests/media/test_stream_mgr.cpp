#include <gtest/gtest.h>

#include <climits>
#include <set>

#include "StreamMgr.h"

using Velto::Zarn::CStreamMgr;

TEST(StreamMgr, SessionIdsCountFromOneAndSkipIdsInUse) {
  CStreamMgr mgr;
  EXPECT_EQ(mgr.addStreamReader(nullptr), 1);
  EXPECT_EQ(mgr.addStreamReader(nullptr), 2);
  EXPECT_EQ(mgr.addStreamReader(nullptr), 3);
  mgr.delStreamReader(2);
  // A deleted id is not handed out again until the counter wraps.
  EXPECT_EQ(mgr.addStreamReader(nullptr), 4);

  mgr.setLastSessionIdForTest(3);  // 4 is still in use
  EXPECT_EQ(mgr.addStreamReader(nullptr), 5);
}

TEST(StreamMgr, SessionCounterWrapsToZero) {
  CStreamMgr mgr;
  mgr.setLastSessionIdForTest(INT_MAX - 1);
  EXPECT_EQ(mgr.addStreamReader(nullptr), INT_MAX);
  EXPECT_EQ(mgr.addStreamReader(nullptr), 0);  // negative counter values give candidate 0
}

TEST(StreamMgr, WritersKeepTheFirstRegistrationAndReportIdsInOrder) {
  CStreamMgr mgr;
  mgr.addStreamWriter(9, nullptr);
  mgr.addStreamWriter(3, nullptr);
  mgr.addStreamWriter(9, nullptr);
  EXPECT_EQ(mgr.getStreamWriterCount(), 2);
  EXPECT_TRUE(mgr.hasStreamWriter(3));
  EXPECT_FALSE(mgr.hasStreamWriter(4));

  std::set<uint32_t> ids{100};
  EXPECT_EQ(mgr.getStreamIds(ids), 3u);  // adds to what the set holds
  EXPECT_EQ(std::vector<uint32_t>(ids.begin(), ids.end()), (std::vector<uint32_t>{3, 9, 100}));

  mgr.delStreamWriter(9);
  mgr.delStreamWriter(9);  // absent ids are ignored
  EXPECT_EQ(mgr.getStreamWriterCount(), 1);
  EXPECT_FALSE(mgr.hasStreamWriter(9));
}
