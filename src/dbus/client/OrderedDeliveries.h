#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

// Work that a command produces while the pool lock is held (the "onFound"
// payloads of a profile read), run only after that lock was released, so that
// an application callback may call back into the client. Batches run one at a
// time, in the order in which they were closed.
//
// An action may lead to another batch on its own thread (a callback that
// calls Disconnect, which delivers what it discarded). That batch cannot wait
// for its turn there, which the thread itself holds: it is put off, and the
// thread runs it in turn once the batch that caused it has ended.
//
// Locks: Add() and Close() run under the caller's lock that orders
// the batches (the pool lock); it guards pending_ and nextTicket_. Turns are
// passed under turnMutex_, a leaf, never held while an action runs.
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
    // on. An action that throws is reported to `failed` and the batch goes on.
    // Called from inside an action of the same sequence, it returns at once
    // and the batch runs when that action's batch has ended.
    void Run(const std::function<void()>& failed);

   private:
    friend class OrderedDeliveries;
    OrderedDeliveries* owner_ = nullptr;
    std::uint64_t ticket_ = 0;
    std::vector<Action> actions_;
  };

  void Add(Action action);                                 // caller's lock held
  void Insert(std::size_t at, Action action);              // caller's lock held: before the `at`th pending one
  std::size_t Pending() const { return pending_.size(); }  // caller's lock held
  Batch Close();                                           // caller's lock held: the pending actions with their turn

 private:
  void AwaitTurn(std::uint64_t ticket);
  void PassTurn();
  bool RunningOnThisThread() const;

  std::vector<Action> pending_;   // guarded by the caller's lock
  std::uint64_t nextTicket_ = 0;  // guarded by the caller's lock
  std::mutex turnMutex_;
  std::condition_variable turn_;
  std::uint64_t serving_ = 0;  // guarded by turnMutex_
};

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
