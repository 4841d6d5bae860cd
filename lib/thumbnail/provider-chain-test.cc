#include "lib/thumbnail/provider-chain.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "lib/thumbnail/testing/fake-thumbnail-provider.h"
#include "lib/thumbnail/thumbnail-job.h"

namespace tessera {
namespace thumbnail {
namespace {

using testing::FakeProviderConfig;
using testing::FakeProviderFactory;
using testing::FakeProviderRecord;
using testing::Gate;

// Runs the three steps as the extraction does; the first failing code, or
// the last one.
int32_t Request(ThumbnailProvider* provider, const std::u16string& path, image::Bitmap* out) {
  int32_t code = provider->CreateItem(path);
  if (code >= 0) code = provider->BindToHandler();
  if (code >= 0) code = provider->GetThumbnail(300, out);
  return code;
}

TEST(ProviderChainTest, TheNextLinkTakesOverAtTheStepThatFailed) {
  struct Case {
    const char* name;
    FakeProviderConfig first;
    FakeProviderConfig second;
    int32_t code;            // of the request
    int second_items;        // what the second link was asked
    int second_binds;
    size_t second_thumbnails;
  };
  FakeProviderConfig ok;
  FakeProviderConfig no_item;
  no_item.item_result = -2;
  FakeProviderConfig no_handler;
  no_handler.bind_result = kProviderNoHandler;
  FakeProviderConfig blank;
  blank.thumbnail_result = -5;
  const Case cases[] = {
      {"first link makes it", ok, ok, 0, 0, 0, 0},
      {"no item", no_item, ok, 0, 1, 1, 1},
      {"no handler", no_handler, ok, 0, 1, 1, 1},
      {"no thumbnail", blank, ok, 0, 1, 1, 1},
      {"both fail: the last failure", no_handler, no_item, -2, 1, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto first = std::make_shared<FakeProviderRecord>();
    auto second = std::make_shared<FakeProviderRecord>();
    ProviderChain chain({FakeProviderFactory(c.first, first), FakeProviderFactory(c.second, second)});
    image::Bitmap bitmap;
    EXPECT_EQ(Request(&chain, u"photo.heic", &bitmap), c.code);
    EXPECT_EQ(bitmap.empty(), c.code < 0);
    EXPECT_EQ(static_cast<int>(second->items.size()), c.second_items);
    if (c.second_items > 0) {
      EXPECT_EQ(second->items[0], u"photo.heic");
      EXPECT_EQ(first->destroyed, 1) << "a failed link is let go before the next starts";
    }
    EXPECT_EQ(second->binds, c.second_binds);
    EXPECT_EQ(second->requested_cx.size(), c.second_thumbnails);
  }
}

// Guards the bound on the Shell: a handler that never answers costs the
// bound once per file, and the request goes on with the next link.
TEST(ProviderChainTest, AHangingLinkCostsItsBoundOnceThenTheNextLinkAnswers) {
  Gate never;
  auto hanging = std::make_shared<FakeProviderRecord>();
  FakeProviderConfig blocks;
  blocks.on_get_thumbnail = [&never] { never.Wait(); };
  auto fallback = std::make_shared<FakeProviderRecord>();
  const auto bounded = [&] {
    return std::make_unique<BoundedProvider>(FakeProviderFactory(blocks, hanging), std::chrono::milliseconds(200));
  };
  for (int size = 0; size < 2; ++size) {
    SCOPED_TRACE(size);
    ProviderChain chain({bounded, FakeProviderFactory(FakeProviderConfig(), fallback)});
    image::Bitmap bitmap;
    EXPECT_EQ(Request(&chain, u"slow.png", &bitmap), 0);
    EXPECT_FALSE(bitmap.empty());
  }
  {
    // The second request did not ask the hanging link again (whose thread
    // may still be writing its record).
    std::lock_guard<std::mutex> lock(hanging->mutex);
    EXPECT_EQ(hanging->items.size(), 1u);
    EXPECT_EQ(hanging->requested_cx.size(), 1u);
  }
  EXPECT_EQ(fallback->requested_cx.size(), 2u);
  // Its thread is still in the call: the process must not end by returning.
  EXPECT_TRUE(HasAbandonedJobs());
  never.Open();
  hanging->WaitDestroyed(1);  // released on its own thread once it returns
}

TEST(ProviderChainTest, ABoundedLinkRunsOnAThreadOfItsOwnAndAnswersThroughIt) {
  auto record = std::make_shared<FakeProviderRecord>();
  FakeProviderConfig config;
  std::thread::id worker;
  config.on_get_thumbnail = [&worker] { worker = std::this_thread::get_id(); };
  {
    BoundedProvider provider(FakeProviderFactory(config, record), std::chrono::seconds(30));
    image::Bitmap bitmap;
    ASSERT_EQ(Request(&provider, u"photo.jpg", &bitmap), 0);
    EXPECT_EQ(bitmap.width(), 64);
    EXPECT_NE(worker, std::this_thread::get_id());
  }
  EXPECT_EQ(record->destroyed, 1);
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
