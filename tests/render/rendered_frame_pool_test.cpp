// The read-back frame pool: memory comes back only once every holder has let
// go, from whichever thread, and a held frame is never handed out again.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "render/RenderedFramePool.h"

namespace velmora {
namespace {

TEST(RenderedFramePoolTest, ReusesAFrameOnlyAfterEveryHolderLetsGo) {
  RenderedFramePool pool(2);
  auto first = pool.acquire(64, 32);
  ASSERT_EQ(std::tuple(first->width, first->height, first->pixels.size()), std::tuple(64, 32, 64u * 32 * 4));
  const std::uint8_t* memory = first->pixels.data();
  first->pixels[0] = 7;

  // An output still holds it: the next frame is other memory.
  std::shared_ptr<const RenderedFrame> output = std::move(first);
  auto second = pool.acquire(64, 32);
  EXPECT_NE(second->pixels.data(), memory);
  EXPECT_EQ(output->pixels[0], 7) << "a held frame was written to";

  // Released on another thread (as the NDI queue does): reused, no new memory.
  std::thread([held = std::move(output)]() mutable { held.reset(); }).join();
  second.reset();
  const std::size_t created = pool.created();
  auto third = pool.acquire(64, 32);
  auto fourth = pool.acquire(64, 32);
  EXPECT_EQ(pool.created(), created);
  EXPECT_TRUE(third->pixels.data() == memory || fourth->pixels.data() == memory);
  EXPECT_NE(third.get(), fourth.get());
}

TEST(RenderedFramePoolTest, BeyondItsCapacityFramesAreMadeAndNotKept) {
  RenderedFramePool pool(1);
  auto kept = pool.acquire(8, 8);
  auto extra = pool.acquire(8, 8);  // the kept one is held
  EXPECT_NE(kept.get(), extra.get());
  EXPECT_EQ(pool.created(), 2u);
  const RenderedFrame* keptAddress = kept.get();
  kept.reset();
  extra.reset();
  EXPECT_EQ(pool.acquire(8, 8).get(), keptAddress);
  EXPECT_EQ(pool.created(), 2u);

  // A new size reuses the kept frame, sized to match.
  auto bigger = pool.acquire(16, 4);
  EXPECT_EQ(bigger.get(), keptAddress);
  EXPECT_EQ(std::tuple(bigger->width, bigger->height, bigger->pixels.size()), std::tuple(16, 4, 16u * 4 * 4));
}

}  // namespace
}  // namespace velmora
