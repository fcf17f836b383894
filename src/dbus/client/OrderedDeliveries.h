#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include <zorvel/common/ThreadAnnotations.h>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

// Work that the command layer produces while its pool lock is held (a
// command's end, the "onFound" payloads of a profile read), run only after
// that lock was released, so that an application callback may call back into
// the client. Batches run one at a time, in the order in which they were
// closed.
//
// A thread never waits for a batch's turn while it is inside an application
// callback (see CallbackExclusion): an earlier batch may be waiting for the
// application callback mutex that thread holds. Its batch is put off instead, and the
// thread runs it in turn once it has left its outermost callback. The same
// holds for a batch caused on a thread by an action of a running batch of the
// same sequence (a callback that calls Disconnect, which delivers what it
// discarded): it runs once the batch that caused it has ended.
//
// Locks: Add() and Close() run under the caller's lock that orders the
// batches (the pool lock), which they are handed so that the analysis checks
// that it is held; it guards pending_ and nextTicket_. Turns are passed under
// turnMutex_, a leaf, never held while an action runs. A turn itself is no
// lock the analysis can follow: it is taken in one call (Run, or a put-off
// batch's destructor) and passed on in another, possibly on a later call
// of RunPutOff.
// Invariant: a batch runs only after every batch of a lower ticket has run
// or was dropped; a closed batch always ends its turn.
class OrderedDeliveries {
 public:
  using Action = std::function<void()>;

  class Batch {
   public:
    Batch() = default;
    Batch(Batch&& other) noexcept;
    Batch& operator=(Batch&& other) noexcept;  // swaps: `other` ends what this held
    ~Batch();                                  // passes the turn on if the batch never ran
    // Waits for the batch's turn and runs its actions, then passes the turn
    // on. An action that throws is reported to `failed` and the batch goes
    // on. Inside a callback, or inside an action of the same sequence, it
    // returns at once and the batch runs later on this thread (see above).
    void Run(std::function<void()> failed);

   private:
    friend class OrderedDeliveries;
    OrderedDeliveries* owner_ = nullptr;
    std::uint64_t ticket_ = 0;
    std::vector<Action> actions_;
    std::function<void()> failed_;  // kept while put off
  };

  // `orderLock`, the caller's lock that orders the batches, is held; always the same one.
  void Add(const common::Mutex& orderLock, Action action) ZV_REQUIRES(orderLock);
  // The pending actions with their turn; `orderLock` held, as for Add.
  Batch Close(const common::Mutex& orderLock) ZV_REQUIRES(orderLock);

 private:
  friend class CallbackExclusion;
  // Runs, in the order they were put off, the batches this thread can run
  // now: outside every callback, and of a sequence none of whose batches it runs.
  static void RunPutOff();
  void AwaitTurn(std::uint64_t ticket) ZV_EXCLUDES(turnMutex_);
  void PassTurn() ZV_EXCLUDES(turnMutex_);
  bool RunningOnThisThread() const;

  // Guarded by the caller's lock handed to Add and Close: the analysis checks
  // that it is held there, but cannot tie a lock of another class to these.
  std::vector<Action> pending_;
  std::uint64_t nextTicket_ = 0;
  common::Mutex turnMutex_;
  std::condition_variable turn_;
  std::uint64_t serving_ ZV_GUARDED_BY(turnMutex_) = 0;
};

// Holds the process-wide application callback mutex (the recursive mutex
// under which every application callback runs) and marks the thread as
// inside a callback, so that no batch waits for its turn here. Leaving the
// outermost one runs the batches put off meanwhile, with no lock held.
class ZV_SCOPED_CAPABILITY CallbackExclusion {
 public:
  explicit CallbackExclusion(common::RecursiveMutex& applicationCallbackMutex) ZV_ACQUIRE(applicationCallbackMutex);
  ~CallbackExclusion() ZV_RELEASE();
  CallbackExclusion(const CallbackExclusion&) = delete;
  CallbackExclusion& operator=(const CallbackExclusion&) = delete;

 private:
  common::RecursiveMutex& applicationCallbackMutex_;
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
