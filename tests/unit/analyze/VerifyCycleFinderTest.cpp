#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "analyze/VerifyCycleFinder.h"

namespace orvane::analyze::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Successors = std::vector<std::vector<std::size_t>>;

std::vector<VerifyCycle> Find(const Successors& successors, std::vector<bool> skipped = {}) {
  skipped.resize(successors.size(), false);
  return VerifyCycleFinder(successors, skipped).Find();
}

TEST(VerifyCycleFinderTest, GraphWithoutCyclesHasNone) {
  EXPECT_THAT(Find({{1, 2}, {3}, {3}, {}}), IsEmpty());
  EXPECT_THAT(Find({}), IsEmpty());
}

TEST(VerifyCycleFinderTest, CycleStartsAndEndsAtItsLowestVertex) {
  const auto cycles = Find({{}, {2}, {3}, {1}, {1}});
  ASSERT_THAT(cycles, SizeIs(1));
  EXPECT_THAT(cycles[0].path, ElementsAre(1, 2, 3, 1));
  EXPECT_EQ(cycles[0].componentSize, 3u);
}

TEST(VerifyCycleFinderTest, VertexLeadingToItselfIsACycle) {
  const auto cycles = Find({{1}, {1}});
  ASSERT_THAT(cycles, SizeIs(1));
  EXPECT_THAT(cycles[0].path, ElementsAre(1, 1));
  EXPECT_EQ(cycles[0].componentSize, 1u);
}

TEST(VerifyCycleFinderTest, ShortestWayBackIsTaken) {
  // 0 -> 1 -> 2 -> 3 -> 0 and the short cut 1 -> 0.
  const auto cycles = Find({{1}, {2, 0}, {3}, {0}});
  ASSERT_THAT(cycles, SizeIs(1));
  EXPECT_THAT(cycles[0].path, ElementsAre(0, 1, 0));
  EXPECT_EQ(cycles[0].componentSize, 4u);
}

TEST(VerifyCycleFinderTest, EachKnotGivesOneCycleInOrderOfItsLowestVertex) {
  // Knot {4, 5} and knot {1, 2, 3}, joined by an edge that makes no cycle.
  const auto cycles = Find({{4}, {2}, {3}, {1, 4}, {5}, {4}});
  ASSERT_THAT(cycles, SizeIs(2));
  EXPECT_THAT(cycles[0].path, ElementsAre(1, 2, 3, 1));
  EXPECT_THAT(cycles[1].path, ElementsAre(4, 5, 4));
}

TEST(VerifyCycleFinderTest, SkippedVertexBreaksTheCyclesThroughIt) {
  const Successors ring = {{1}, {2}, {0}};
  EXPECT_THAT(Find(ring, {false, true, false}), IsEmpty());
  EXPECT_THAT(Find(ring), SizeIs(1));
}

TEST(VerifyCycleFinderTest, ExponentiallyManyCyclesCostOneEach) {
  // Forty layers of two vertices, each leading to both of the next layer,
  // the last back to the first: 2^40 distinct cycles, one knot.
  constexpr std::size_t kLayers = 40;
  Successors successors(2 * kLayers);
  for (std::size_t layer = 0; layer < kLayers; ++layer) {
    const std::size_t next = (layer + 1) % kLayers;
    for (std::size_t vertex : {2 * layer, 2 * layer + 1}) {
      successors[vertex] = {2 * next, 2 * next + 1};
    }
  }
  const auto cycles = Find(successors);
  ASSERT_THAT(cycles, SizeIs(1));
  EXPECT_EQ(cycles[0].componentSize, 2 * kLayers);
  EXPECT_THAT(cycles[0].path, SizeIs(kLayers + 1));
}

// A recursive walk would need a stack frame per vertex of the chain.
TEST(VerifyCycleFinderTest, ChainOfAMillionVerticesNeedsNoDeepStack) {
  constexpr std::size_t kVertices = 1000000;
  Successors successors(kVertices);
  for (std::size_t vertex = 0; vertex + 1 < kVertices; ++vertex) {
    successors[vertex] = {vertex + 1};
  }
  EXPECT_THAT(Find(successors), IsEmpty());

  successors.back() = {0};
  const auto cycles = Find(successors);
  ASSERT_THAT(cycles, SizeIs(1));
  EXPECT_EQ(cycles[0].componentSize, kVertices);
  ASSERT_THAT(cycles[0].path, SizeIs(kVertices + 1));
  EXPECT_EQ(cycles[0].path.front(), 0u);
  EXPECT_EQ(cycles[0].path[kVertices - 1], kVertices - 1);
  EXPECT_EQ(cycles[0].path.back(), 0u);
}

}  // namespace
}  // namespace orvane::analyze::testing
