// Delivery turns without a bus: batches run in the order they were closed, whatever thread runs them,
// and a thread inside an application callback or a running batch puts its batch off instead of
// waiting for a turn it would block. A broken turn fails here; a deadlock fails at the deadline.

#include <stdexcept>

#include <zorvel/dbus/client/OrderedDeliveries.h>

#include "support/Wait.h"

namespace zv_client::testing {
namespace {

using dbus::client::detail::CallbackExclusion;
using Deliveries = dbus::client::detail::OrderedDeliveries;
using namespace std::chrono_literals;

// One sequence with its order lock and the application callback mutex. Shared with the threads of a
// test, so that a thread left deadlocked when the test gives up still finds it.
struct Sequence {
  common::Mutex order;
  common::RecursiveMutex callbacks;
  Deliveries deliveries;
  Recorder<int> ran;
  std::atomic<int> failed{0}, stage{0};  // actions that threw; how far a test's threads got

  std::shared_ptr<Deliveries::Batch> Close(std::vector<Deliveries::Action> actions) {
    common::MutexLock lock(order);
    for (auto& action : actions) deliveries.Add(order, std::move(action));
    return std::make_shared<Deliveries::Batch>(deliveries.Close(order));
  }
  Deliveries::Action Note(int step) {
    return [this, step] { ran.Add(step); };
  }
};

// Runs each of `work` on a detached thread; false when one has not ended by the deadline.
bool AllEnd(std::vector<std::function<void()>> work) {
  const auto ended = std::make_shared<std::atomic<std::size_t>>(0);
  for (auto& each : work) std::thread([each = std::move(each), ended] { each(), ++*ended; }).detach();
  return WaitUntil([&, count = work.size()] { return *ended == count; }, 10s);
}

TEST(DeliveryTurns, BatchesRunInTheOrderTheyWereClosed) {
  const auto s = std::make_shared<Sequence>();
  const auto b0 = s->Close({s->Note(0)});
  const auto b1 = s->Close({s->Note(1)});
  const auto b2 = s->Close({[] { throw std::runtime_error("action failed"); }, s->Note(2)});
  const auto b3 = s->Close({s->Note(3)});
  const auto run = [s](const std::shared_ptr<Deliveries::Batch>& batch) {
    return [s, batch] { batch->Run([s] { ++s->failed; }); };
  };
  const auto drop = [b1] { Deliveries::Batch dropped = std::move(*b1); };  // never run: its turn passes on
  // Batch 0 last, once the later ones, each on a thread of its own, had the chance to jump the queue.
  const auto first = [s, b0] {
    EXPECT_FALSE(WaitUntil([&] { return !s->ran.Items().empty(); }, 100ms)) << "a batch ran out of turn";
    b0->Run({});
  };
  EXPECT_TRUE(AllEnd({run(b3), run(b2), drop, first})) << "a turn was never passed on";
  EXPECT_EQ(s->ran.Items(), (std::vector<int>{0, 2, 3}));
  EXPECT_EQ(s->failed, 1) << "the throwing action is reported once, and its batch goes on";
}

TEST(DeliveryTurns, ABatchCausedByARunningBatchRunsWhenThatOneEnded) {
  // As a callback that disconnects delivers what it discarded: same sequence, same thread.
  const auto s = std::make_shared<Sequence>();
  const auto outer = s->Close({[s] { s->ran.Add(0), s->Close({s->Note(3)})->Run({}), s->ran.Add(1); }, s->Note(2)});
  EXPECT_TRUE(AllEnd({[outer] { outer->Run({}); }})) << "the caused batch waited for the turn of its cause";
  EXPECT_EQ(s->ran.Items(), (std::vector<int>{0, 1, 2, 3}));
}

TEST(DeliveryTurns, ABatchRunInsideACallbackWaitsForNoEarlierBatch) {
  // T2 runs batch 0, whose action needs the callback mutex that T1 holds; T1 then runs batch 1. Waiting
  // for its turn inside the callback, T1 would never let batch 0 in.
  const auto s = std::make_shared<Sequence>();
  const auto b0 = s->Close({[s] {
    s->stage = 2;
    CallbackExclusion exclusion(s->callbacks);
    s->ran.Add(0);
  }});
  const auto b1 = s->Close({s->Note(1)});
  const auto t1 = [s, b1] {
    {
      CallbackExclusion outermost(s->callbacks);
      {
        CallbackExclusion nested(s->callbacks);
        s->stage = 1;
        WaitUntil([&] { return s->stage == 2; });
        b1->Run({});
      }
      s->ran.Add(8);  // leaving a nested callback runs nothing yet
    }
    s->ran.Add(9);  // batch 1 ran on leaving the outermost one
  };
  const auto t2 = [s, b0] { WaitUntil([&] { return s->stage == 1; }), b0->Run({}); };
  ASSERT_TRUE(AllEnd({t1, t2})) << "deadlock: a thread inside a callback waited for a delivery turn";
  EXPECT_EQ(s->ran.Items(), (std::vector<int>{8, 0, 1, 9}));
}

}  // namespace
}  // namespace zv_client::testing
