// The pieces every scanner stands on: the scan session, the visited set, the
// checked block reader, the tree walk and the address map.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <vector>

#include "core/scan/address_map.h"
#include "core/scan/block_reader.h"
#include "core/scan/session.h"
#include "core/scan/tree_walk.h"
#include "tests/support/file_device.h"
#include "tests/support/recording_message.h"
#include "tests/support/test_env.h"

using namespace QORV;
using namespace testsupport;

TEST(ScanSession, MarkingPastTheEndIsCutCountedAndExplainedUnderVerbose) {
  TestEnv t;
  t.env.verbose = true;
  MemDevice dev(std::vector<uint8_t>(4096));
  RecordingMessage msg;
  CScanSession session(&t.env, &dev, &msg);
  ASSERT_EQ(session.CreateBitmap(10, 9), api::QORV_OK);
  EXPECT_TRUE(session.Mark(0, 2, "boot"));
  EXPECT_FALSE(session.Mark(8, 5, "chain"));
  EXPECT_FALSE(session.Mark(~0ull, 2, "wrapped"));
  EXPECT_EQ(session.Used().CountSet(), 4u);
  EXPECT_EQ(session.Problems(), 2u);
  EXPECT_TRUE(msg.Has(1, "Problem 1: chain: blocks 0x8 + 0x5 run past the volume's 0xa blocks"));

  uint8_t* bitmap = reinterpret_cast<uint8_t*>(&msg);
  uint64_t n = 0;
  uint32_t k = 0, problems = 0;
  ASSERT_EQ(session.Finish(api::QORV_OK, &bitmap, &n, &k, &problems), api::QORV_OK);
  ASSERT_NE(bitmap, nullptr);
  EXPECT_EQ(bitmap[0], 0x03);
  EXPECT_EQ(bitmap[1], 0x03);
  EXPECT_EQ(n, 10u);
  EXPECT_EQ(k, 9u);
  EXPECT_EQ(problems, 2u);
  t.mem.Free(bitmap);
}

TEST(VisitedSet, SparseKeysAcrossTheWholeRange) {
  TestEnv t;
  {
    CVisitedSet set(&t.mem);
    const uint64_t keys[] = {0, 1, 32767, 32768, 1ull << 40, ~0ull};
    for (uint64_t k : keys) EXPECT_TRUE(set.Insert(k)) << k;
    for (uint64_t k : keys) EXPECT_FALSE(set.Insert(k)) << k;
    EXPECT_FALSE(set.Contains(2));
    EXPECT_EQ(set.BytesHeld(), 4u * 4096);
  }
  EXPECT_EQ(t.mem.allocations, t.mem.frees);
}

TEST(RangeMap, TranslatesInsideRangesAndRefusesOverlaps) {
  CRangeMap map;
  EXPECT_EQ(map.Add(1 << 20, 1 << 20, 0x5000), api::QORV_OK);
  EXPECT_EQ(map.Add(0, 4096, 0), api::QORV_OK);
  EXPECT_EQ(map.Add((1 << 20) + 4096, 10, 0), api::ERR_INCONSISTENT);  // overlaps
  EXPECT_EQ(map.Add(~0ull - 5, 10, 0), api::ERR_INCONSISTENT);         // wraps
  EXPECT_EQ(map.Add(8192, 0, 0), api::ERR_INCONSISTENT);               // empty
  uint64_t phys = 0, run = 0;
  ASSERT_TRUE(map.Translate((1 << 20) + 100, &phys, &run));
  EXPECT_EQ(phys, 0x5000u + 100);
  EXPECT_EQ(run, (1u << 20) - 100);
  EXPECT_FALSE(map.Translate(4096, &phys, &run));
  EXPECT_FALSE(map.Translate(2 << 20, &phys, &run));
  CIdentityMap same(1000);
  EXPECT_TRUE(same.Translate(999, &phys, &run));
  EXPECT_EQ(run, 1u);
  EXPECT_FALSE(same.Translate(1000, &phys, &run));
}

namespace {

// Accepts units whose first byte is 0xAB and repairs their last byte, the
// way a fix-up check does.
class FirstByteCheck : public IUnitCheck {
 public:
  api::status_t Check(uint64_t, uint8_t* unit, uint32_t size) override {
    ++calls;
    if (unit[0] != 0xAB) return api::ERR_INCONSISTENT;
    unit[size - 1] = 0xEE;
    return api::QORV_OK;
  }
  int calls = 0;
};

}  // namespace

TEST(BlockReader, CachesCheckedUnitsAndNeverHandsOutRejectedOnes) {
  TestEnv t;
  std::vector<uint8_t> bytes(16 * 1024);
  for (size_t u = 0; u < 16; u += 2) bytes[u * 1024] = 0xAB;
  MemDevice dev(bytes);
  FirstByteCheck check;
  CBlockReader reader(&t.mem);
  ASSERT_EQ(reader.Init(&dev, 1024, bytes.size(), 4), api::QORV_OK);
  reader.SetCheck(&check);
  ByteView v;
  ASSERT_EQ(reader.Read(2048, &v), api::QORV_OK);
  EXPECT_EQ(v.u8(1023), 0xEE);
  ASSERT_EQ(reader.Read(2048, &v), api::QORV_OK);
  EXPECT_EQ(dev.reads, 1u);
  EXPECT_EQ(reader.Read(1024, &v), api::ERR_INCONSISTENT);
  EXPECT_EQ(v.Size(), 0u);
  EXPECT_EQ(reader.Read(1024, &v), api::ERR_INCONSISTENT);  // a rejected unit is not cached
  EXPECT_EQ(reader.Read(15 * 1024 + 512, &v), api::ERR_IO_RANGE);
  EXPECT_EQ(reader.Read(~0ull - 10, &v), api::ERR_IO_RANGE);
  // Four slots: the least recently used one goes.
  for (uint64_t u : {0, 4, 6, 8}) ASSERT_EQ(reader.Read(u * 1024, &v), api::QORV_OK);
  ASSERT_EQ(reader.Read(2048, &v), api::QORV_OK);
  EXPECT_EQ(reader.Stats().hits, 1u);
  EXPECT_EQ(reader.Stats().rejected, 2u);
  EXPECT_EQ(reader.Init(&dev, 1000, bytes.size()), api::ERR_INCONSISTENT);
}

namespace {

// A tree given as child lists; records the visiting order.
class GraphVisitor : public ITreeVisitor {
 public:
  api::status_t Visit(const WalkNode& node, CTreeWalk& walk) override {
    order.push_back(node.address);
    for (uint64_t c : children[node.address]) walk.Add(c);
    return api::QORV_OK;
  }
  std::map<uint64_t, std::vector<uint64_t>> children;
  std::vector<uint64_t> order;
};

}  // namespace

TEST(TreeWalk, CyclesAndSharedNodesAreVisitedOnceAndDepthIsBounded) {
  TestEnv t;
  MemDevice dev(std::vector<uint8_t>(512));
  CScanSession session(&t.env, &dev, nullptr);
  GraphVisitor g;
  g.children[1] = {2, 3};
  g.children[2] = {4, 1};  // back to the root
  g.children[3] = {4, 3};  // a shared node and a self loop
  CTreeWalk walk(session, "test tree");
  walk.Add(1);
  ASSERT_EQ(walk.Run(g), api::QORV_OK);
  EXPECT_EQ(g.order.size(), 4u);
  EXPECT_EQ(session.Problems(), 0u);

  // A chain a million nodes deep never touches the call stack; the bound
  // cuts it and says so once.
  GraphVisitor deep;
  for (uint64_t i = 0; i < 1000000; ++i) deep.children[i] = {i + 1};
  CTreeWalk bounded(session, "deep tree", 1000);
  bounded.Add(0);
  ASSERT_EQ(bounded.Run(deep), api::QORV_OK);
  EXPECT_EQ(deep.order.size(), 1001u);
  EXPECT_EQ(bounded.MaxDepthReached(), 1000u);
  EXPECT_EQ(session.Problems(), 1u);

  // In rounds, a level wider than the round limit is walked in parts, each
  // part's children before the rest of the level: every node still once.
  GraphVisitor wide;
  for (uint64_t i = 1; i <= 100; ++i) {
    wide.children[0].push_back(i);
    for (uint64_t j = 0; j < 100; ++j) wide.children[i].push_back(1000 + i * 100 + j);
  }
  for (size_t limit : {size_t(64), size_t(1) << 20}) {
    GraphVisitor w = wide;
    CTreeWalk rounds(session, "wide tree");
    rounds.SetRoundLimit(limit);
    rounds.Add(0);
    ASSERT_EQ(rounds.RunRounds(w), api::QORV_OK);
    EXPECT_EQ(std::set<uint64_t>(w.order.begin(), w.order.end()).size(), 10101u);
    EXPECT_EQ(w.order.size(), 10101u);
    EXPECT_EQ(rounds.DeepestRound(), limit == 64 ? 2u : 1u) << limit;
  }
  EXPECT_EQ(session.Problems(), 1u);
}
