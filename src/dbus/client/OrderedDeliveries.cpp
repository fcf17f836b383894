#include <dbus/client/OrderedDeliveries.h>

#include <algorithm>
#include <utility>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {
namespace {

// The sequences whose batch the calling thread is running, innermost last,
// and the batches put off until those have ended.
thread_local std::vector<const OrderedDeliveries*> runningHere;
thread_local std::vector<OrderedDeliveries::Batch> putOffHere;

}  // namespace

OrderedDeliveries::Batch::Batch(Batch&& other) noexcept
    : owner_(std::exchange(other.owner_, nullptr)), ticket_(other.ticket_), actions_(std::move(other.actions_)) {}

OrderedDeliveries::Batch& OrderedDeliveries::Batch::operator=(Batch&& other) noexcept {
  std::swap(owner_, other.owner_);
  std::swap(ticket_, other.ticket_);
  actions_.swap(other.actions_);
  return *this;
}

OrderedDeliveries::Batch::~Batch() {
  if (owner_ == nullptr) return;
  owner_->AwaitTurn(ticket_);
  owner_->PassTurn();
}

void OrderedDeliveries::Batch::Run(const std::function<void()>& failed) {
  if (owner_ == nullptr) return;
  OrderedDeliveries* owner = owner_;
  if (owner->RunningOnThisThread()) {
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
      failed();
    }
  }
  runningHere.pop_back();
  owner->PassTurn();
  if (owner->RunningOnThisThread()) return;  // an outer batch of ours runs what was put off
  for (;;) {
    const auto next = std::find_if(putOffHere.begin(), putOffHere.end(),
                                   [owner](const Batch& batch) { return batch.owner_ == owner; });
    if (next == putOffHere.end()) break;
    Batch putOff = std::move(*next);
    putOffHere.erase(next);
    putOff.Run(failed);
  }
}

void OrderedDeliveries::Add(Action action) { pending_.push_back(std::move(action)); }

void OrderedDeliveries::Insert(std::size_t at, Action action) {
  pending_.insert(pending_.begin() + static_cast<std::ptrdiff_t>(at), std::move(action));
}

OrderedDeliveries::Batch OrderedDeliveries::Close() {
  Batch batch;
  if (pending_.empty()) return batch;
  batch.owner_ = this;
  batch.ticket_ = nextTicket_++;
  batch.actions_.swap(pending_);
  return batch;
}

void OrderedDeliveries::AwaitTurn(std::uint64_t ticket) {
  std::unique_lock<std::mutex> lock(turnMutex_);
  turn_.wait(lock, [&] { return serving_ == ticket; });
}

void OrderedDeliveries::PassTurn() {
  std::lock_guard<std::mutex> lock(turnMutex_);
  ++serving_;
  turn_.notify_all();
}

bool OrderedDeliveries::RunningOnThisThread() const {
  return std::find(runningHere.begin(), runningHere.end(), this) != runningHere.end();
}

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
