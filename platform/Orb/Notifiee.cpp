#include "Orb/Notifiee.h"

#include <utility>

namespace Orb {

NotifieeBase::~NotifieeBase() { inactive(); }

void NotifieeBase::activeIn(NotifieeList* list) {
  active_ = true;
  if (list) list->link(*this);
}

void NotifieeBase::inactive() {
  active_ = false;
  if (list_) list_->unlink(*this);
}

NotifieeList::~NotifieeList() {
  while (first_) unlink(*first_);
}

void NotifieeList::link(NotifieeBase& notifiee) {
  notifiee.list_ = this;
  notifiee.sequence_ = nextSequence_++;
  notifiee.previous_ = last_;
  notifiee.next_ = nullptr;
  (last_ ? last_->next_ : first_) = &notifiee;
  last_ = &notifiee;
  // A delivery that had reached the end must not find it: its limit keeps it out.
}

void NotifieeList::unlink(NotifieeBase& notifiee) {
  for (Delivery* delivery = deliveries_; delivery; delivery = delivery->outer_) {
    if (delivery->next_ == &notifiee) delivery->next_ = notifiee.next_;
  }
  (notifiee.previous_ ? notifiee.previous_->next_ : first_) = notifiee.next_;
  (notifiee.next_ ? notifiee.next_->previous_ : last_) = notifiee.previous_;
  notifiee.list_ = nullptr;
}

Delivery::Delivery(NotifieeList& list, const PtrInterface& entity)
    : list_(&list),
      next_(list.first_),
      limit_(list.nextSequence_),
      outer_(std::exchange(list.deliveries_, this)),
      keepsEntity_(keepAlive(&entity)) {}

Delivery::~Delivery() { end(); }

NotifieeBase* Delivery::next() {
  if (!next_ || next_->sequence_ >= limit_) return nullptr;
  return std::exchange(next_, next_->next_);
}

void Delivery::failed() noexcept {
  if (!failure_) failure_ = std::current_exception();
}

void Delivery::finish() {
  const std::exception_ptr failure = std::move(failure_);
  end();
  if (failure) std::rethrow_exception(failure);
}

void Delivery::end() noexcept {
  // Deliveries nest, so the innermost one is always the one that ends.
  if (list_) list_->deliveries_ = outer_;
  list_ = nullptr;
  keepsEntity_.reset();
}

}  // namespace Orb
