#include "Orb/Ptr.h"

namespace Orb {

namespace detail {
std::atomic<bool> threadSafeMode{false};
}

void threadSafeModeIs(bool on) { detail::threadSafeMode.store(on); }

PtrInterface::~PtrInterface() = default;

void PtrInterface::lastReferenceGone() const {
  // References taken and dropped inside the hook must not bring us here again.
  references_.add();
  const_cast<PtrInterface*>(this)->onZeroReferences();
  if (references_.drop() != 0) return;
  // A destructor may take and drop references without deleting the object a second time.
  references_.immortal();
  delete this;
}

}  // namespace Orb
