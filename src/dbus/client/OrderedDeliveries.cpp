#include <zorvel/dbus/client/OrderedDeliveries.h>

#include <algorithm>
#include <utility>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {
namespace {

// The sequences whose batch the calling thread is running, innermost last;
// the batches put off on this thread; how deep it is in callbacks.
thread_local std::vector<const OrderedDeliveries*> runningHere;
thread_local std::vector<OrderedDeliveries::Batch> putOffHere;
thread_local int callbackDepth = 0;

}  // namespace

OrderedDeliveries::Batch::Batch(Batch&& other) noexcept
    : owner_(std::exchange(other.owner_, nullptr)),
      ticket_(other.ticket_),
      actions_(std::move(other.actions_)),
      failed_(std::move(other.failed_)) {}

OrderedDeliveries::Batch& OrderedDeliveries::Batch::operator=(Batch&& other) noexcept {
  std::swap(owner_, other.owner_);
  std::swap(ticket_, other.ticket_);
  actions_.swap(other.actions_);
  failed_.swap(other.failed_);
  return *this;
}

OrderedDeliveries::Batch::~Batch() {
  if (owner_ == nullptr) return;
  owner_->AwaitTurn(ticket_);
  owner_->PassTurn();
}

void OrderedDeliveries::RunPutOff() {
  while (callbackDepth == 0) {
    const auto next = std::find_if(putOffHere.begin(), putOffHere.end(), [](const Batch& batch) {
      return std::find(runningHere.begin(), runningHere.end(), batch.owner_) == runningHere.end();
    });
    if (next == putOffHere.end()) return;
    Batch putOff = std::move(*next);
    putOffHere.erase(next);
    std::function<void()> failed = std::move(putOff.failed_);
    putOff.Run(std::move(failed));
  }
}

void OrderedDeliveries::Batch::Run(std::function<void()> failed) {
  if (owner_ == nullptr) return;
  OrderedDeliveries* owner = owner_;
  if (callbackDepth > 0 || owner->RunningOnThisThread()) {
    failed_ = std::move(failed);
    putOffHere.push_back(std::move(*this));
    return;
  }
  owner_ = nullptr;
  owner->AwaitTurn(ticket_);
  runningHere.push_back(owner);
  for (const Action& action : actions_) {
    try {
      action();
    } catch (...) {
      if (failed) failed();
    }
  }
  runningHere.pop_back();
  owner->PassTurn();
  RunPutOff();
}

void OrderedDeliveries::Add(const common::Mutex& /*orderLock*/, Action action) {
  pending_.push_back(std::move(action));
}

OrderedDeliveries::Batch OrderedDeliveries::Close(const common::Mutex& /*orderLock*/) {
  Batch batch;
  if (pending_.empty()) return batch;
  batch.owner_ = this;
  batch.ticket_ = nextTicket_++;
  batch.actions_.swap(pending_);
  return batch;
}

void OrderedDeliveries::AwaitTurn(std::uint64_t ticket) {
  common::MutexLock lock(turnMutex_);
  while (serving_ != ticket) turn_.wait(lock.native());
}

void OrderedDeliveries::PassTurn() {
  common::MutexLock lock(turnMutex_);
  ++serving_;
  turn_.notify_all();
}

bool OrderedDeliveries::RunningOnThisThread() const {
  return std::find(runningHere.begin(), runningHere.end(), this) != runningHere.end();
}

CallbackExclusion::CallbackExclusion(common::RecursiveMutex& applicationCallbackMutex)
    : applicationCallbackMutex_(applicationCallbackMutex) {
  applicationCallbackMutex_.lock();
  ++callbackDepth;
}

CallbackExclusion::~CallbackExclusion() {
  --callbackDepth;
  applicationCallbackMutex_.unlock();
  OrderedDeliveries::RunPutOff();
}

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
