// Reference counts of the platform's objects. Any thread.
#include <utils/RefBase.h>

namespace android {

RefBase::RefBase() : refs_(new weakref_type(this)) {}

RefBase::~RefBase() {
  // An object that was never strongly held gets here by a direct destruction: no promotion from
  // now.
  refs_->strong_.store(weakref_type::kDead, std::memory_order_relaxed);
  refs_->decWeak(this);
}

void RefBase::onFirstRef() {}

void RefBase::incStrong(const void* id) const {
  // Also right for an object that lives; whoever calls this with a dead one holds no reference.
  refs_->attemptIncStrong(id);
}

void RefBase::decStrong(const void* /*id*/) const {
  // Release and acquire: what other holders did to the object comes before its destruction.
  if (refs_->strong_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

std::int32_t RefBase::getStrongCount() const {
  const std::int32_t count = refs_->strong_.load(std::memory_order_relaxed);
  return count == weakref_type::kNeverStrong ? 0 : count;
}

RefBase::weakref_type* RefBase::createWeak(const void* id) const {
  refs_->incWeak(id);
  return refs_;
}

void RefBase::weakref_type::incWeak(const void* /*id*/) {
  weak_.fetch_add(1, std::memory_order_relaxed);
}

void RefBase::weakref_type::decWeak(const void* /*id*/) {
  if (weak_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

bool RefBase::weakref_type::attemptIncStrong(const void* /*id*/) {
  std::int32_t count = strong_.load(std::memory_order_relaxed);
  while (count != kDead) {
    const std::int32_t next = count == kNeverStrong ? 1 : count + 1;
    if (!strong_.compare_exchange_weak(count, next, std::memory_order_acq_rel,
                                       std::memory_order_relaxed)) {
      continue;
    }
    if (count == kNeverStrong) object_->onFirstRef();
    return true;
  }
  return false;
}

}  // namespace android
