// The intake without a bus: commands put in from several threads enter the layer in the order they
// were accepted, each once, also when some of their threads could not be started.

#include <system_error>

#include <zorvel/dbus/client/CommandIntake.h>

#include "support/Wait.h"

namespace zv_client::testing {
namespace {

TEST(IntakeOrder, ThreadsTakeItemsInTheOrderTheyWerePut) {
  struct Layer {
    dbus::client::detail::CommandIntake<int> intake;
    std::mutex lock;  // the layer's lock, under which a thread takes its item
    Recorder<int> put, taken;
  };
  const auto layer = std::make_shared<Layer>();
  const auto take = [layer] {
    std::lock_guard<std::mutex> held(layer->lock);
    layer->taken.Add(layer->intake.Take());
  };
  // The layer stays locked until every item is in, so the threads find many waiting and race for them.
  std::unique_lock<std::mutex> busy(layer->lock);
  std::vector<std::thread> producers;
  for (int p = 0; p < 4; ++p) {
    producers.emplace_back([&, p] {
      for (int item = p * 100; item < p * 100 + 50; ++item) {
        if (item % 7 == 3) {  // no thread: the item goes back out, and the caller hears why
          EXPECT_THROW(layer->intake.Put(item, [] { throw std::system_error(EAGAIN, std::generic_category()); }),
                       std::system_error);
          continue;
        }
        layer->intake.Put(item, [&, item] { layer->put.Add(item), std::thread(take).detach(); });  // under its mutex
      }
    });
  }
  for (std::thread& producer : producers) producer.join();
  busy.unlock();
  const std::vector<int> put = layer->put.Items();
  EXPECT_TRUE(layer->taken.WaitForSize(put.size()));
  EXPECT_EQ(layer->taken.Items(), put) << "taken out of order, twice, or never";
}

}  // namespace
}  // namespace zv_client::testing
