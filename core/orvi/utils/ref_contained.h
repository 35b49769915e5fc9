// Base of library objects that are always owned by std::shared_ptr and hand
// out shared or weak references to themselves (to transports, timers and
// worker threads, which must never keep their owner alive).
#pragma once

#include <memory>

namespace orvi {

class RefContained : public std::enable_shared_from_this<RefContained> {
 public:
  virtual ~RefContained() = default;

 protected:
  // A shared reference to `self`, which must be this object (or a subobject
  // of it) and owned by a shared_ptr already.
  template <typename T>
  std::shared_ptr<T> sharedFromThis(T* self) {
    return std::shared_ptr<T>(shared_from_this(), self);
  }

  template <typename T>
  std::weak_ptr<T> weakFromThis(T* self) {
    return sharedFromThis(self);
  }
};

}  // namespace orvi
