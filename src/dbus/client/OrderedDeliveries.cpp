#include <dbus/client/OrderedDeliveries.h>

#include <utility>

namespace zv_client {
namespace dbus {
namespace client {
namespace detail {

OrderedDeliveries::Batch::Batch(Batch&& other) noexcept
    : owner_(std::exchange(other.owner_, nullptr)), ticket_(other.ticket_), actions_(std::move(other.actions_)) {}

OrderedDeliveries::Batch::~Batch() {
  if (owner_ == nullptr) return;
  owner_->AwaitTurn(ticket_);
  owner_->PassTurn();
}

void OrderedDeliveries::Batch::Run(const std::function<void()>& failed) {
  if (owner_ == nullptr) return;
  OrderedDeliveries* owner = std::exchange(owner_, nullptr);
  owner->AwaitTurn(ticket_);
  for (const Action& action : actions_) {
    try {
      action();
    } catch (...) {
      failed();
    }
  }
  owner->PassTurn();
}

void OrderedDeliveries::Add(Action action) { pending_.push_back(std::move(action)); }

void OrderedDeliveries::Discard() { pending_.clear(); }

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

}  // namespace detail
}  // namespace client
}  // namespace dbus
}  // namespace zv_client
