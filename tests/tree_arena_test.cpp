// The arena of the run's trees: nodes and header tables taken as a stack,
// given back to a mark, header tables that stay where they are while deeper
// levels take more than a block, and nodes that keep their values by index
// when the node array grows.
#include <cstdint>
#include <vector>

#include "engine/fp_tree.h"
#include "support/harness.h"

using namespace quarlo::detail;

namespace {

// Fills n header entries with values made from `seed`.
HeaderEntry* take_filled(TreeArena* a, size_t n, uint32_t seed) {
  HeaderEntry* h = a->take_headers(n);
  if (h == nullptr) return nullptr;
  for (size_t i = 0; i < n; ++i) h[i] = {seed, static_cast<int32_t>(i), seed + 1};
  return h;
}

bool holds(const HeaderEntry* h, size_t n, uint32_t seed) {
  for (size_t i = 0; i < n; ++i) {
    if (h[i].item != seed || h[i].support != static_cast<int32_t>(i) || h[i].head != seed + 1)
      return false;
  }
  return true;
}

TEST(TreeArena, LevelsKeepTheirHeadersWhileDeeperLevelsTakeAndGiveBack) {
  TreeArena a;
  const TreeArena::Mark empty = a.mark();
  // Three levels, the deeper ones each larger than the blocks before them.
  HeaderEntry* top = take_filled(&a, 1000, 1);
  const TreeArena::Mark after_top = a.mark();
  HeaderEntry* mid = take_filled(&a, 5000, 2);
  HeaderEntry* deep = take_filled(&a, 30000, 3);
  ASSERT_TRUE(top != nullptr && mid != nullptr && deep != nullptr);
  EXPECT_TRUE(holds(top, 1000, 1));
  EXPECT_TRUE(holds(mid, 5000, 2));
  EXPECT_TRUE(holds(deep, 30000, 3));
  // Giving the two deeper levels back and taking a bigger one than either
  // leaves the top level as it was.
  a.release(after_top);
  HeaderEntry* again = take_filled(&a, 70000, 4);
  ASSERT_NE(again, nullptr);
  EXPECT_TRUE(holds(top, 1000, 1));
  EXPECT_TRUE(holds(again, 70000, 4));
  // After a release the next table goes right behind what is still held.
  a.release(after_top);
  EXPECT_EQ(a.take_headers(10), top + 1000);
  a.release(empty);
  EXPECT_EQ(a.take_headers(10), top);
}

TEST(TreeArena, NodesKeepTheirIndicesAndValuesAcrossGrowth) {
  TreeArena a;
  size_t bytes = 0;
  const TreeArena::Mark start = a.mark();
  std::vector<NodeId> ids;
  for (uint32_t i = 0; i < 20000; ++i) {
    const NodeId id = a.take_node(&bytes);
    ASSERT_NE(id, kNoNode);
    a.nodes()[id] = {i, static_cast<int32_t>(i), id - 1, kNoNode, kNoNode, i + 7};
    ids.push_back(id);
  }
  EXPECT_EQ(ids.front(), 1u);  // index 0 stands for no node
  for (uint32_t i = 0; i < ids.size(); ++i) {
    const FPNode& v = a.nodes()[ids[i]];
    ASSERT_TRUE(v.key == i && v.count == static_cast<int32_t>(i) && v.next_link == i + 7) << i;
  }
  // Given back, the same indices are handed out again without growing.
  const FPNode* array = a.nodes();
  a.release(start);
  EXPECT_EQ(a.take_node(&bytes), ids.front());
  EXPECT_EQ(a.nodes(), array);
  EXPECT_EQ(a.end(), ids.front() + 1);
}

// A path of `n` nodes below a root at index 1, each with item `item`, keys
// made by `key` as the tree builder makes them.
std::vector<FPNode> path_of(const NodeKey& key, uint32_t n, uint32_t item) {
  std::vector<FPNode> nd(n + 2);
  nd[1] = {NodeKey::root_key(), 0, kNoNode, kNoNode, kNoNode, kNoNode};
  for (uint32_t i = 2; i < n + 2; ++i) {
    nd[i] = {key.child_key(item, nd[i - 1].key), 1, i - 1, kNoNode, kNoNode, kNoNode};
    nd[i - 1].first_child = i;
  }
  return nd;
}

TEST(NodeKey, ItemsAndDepthsReadBackWhateverTheSplit) {
  // From few items (deep paths fit the key) to items that leave the depth
  // two bits or none, where deeper nodes are counted along their parents.
  for (uint32_t nitems : {1u, 2u, 1000u, 1u << 20, 1u << 29, 1u << 31}) {
    NodeKey key;
    key.set_items(nitems);
    const uint32_t item = nitems - 1;
    std::vector<FPNode> nd = path_of(key, 40, item);
    for (uint32_t i = 2; i < nd.size(); ++i) {
      ASSERT_EQ(key.item(nd[i]), item) << nitems;
      ASSERT_EQ(key.depth(nd.data(), i), i - 1) << nitems << " " << i;
      ASSERT_FALSE(NodeKey::wide(nd[i]));
    }
    // The wide bit leaves item and depth alone.
    nd[20].key |= NodeKey::kWide;
    EXPECT_TRUE(NodeKey::wide(nd[20]));
    EXPECT_EQ(key.item(nd[20]), item);
    EXPECT_EQ(key.depth(nd.data(), 20), 19u);
    EXPECT_EQ(key.depth(nd.data(), 30), 29u) << nitems;
  }
}

TEST(NodeKey, SmallItemCountsKeepDepthsExact) {
  NodeKey key;
  key.set_items(996);  // ten bits of item: 21 of depth
  EXPECT_EQ(key.cap(), (1u << 21) - 1);
  key.set_items(1u << 29);
  EXPECT_EQ(key.cap(), 3u);
  key.set_items(1u << 31);
  EXPECT_EQ(key.cap(), 0u);
}

}  // namespace
