// RAII lock over the library's own mutex. The library's mutexes are of types
// whose lock does not fail (no error checking, no robustness), so locked()
// holds on Linux; its failure branches are left out of the coverage figures.
#pragma once

#include "lock.h"

namespace qosa::detail {

class MutexGuard {
  public:
    explicit MutexGuard(QosaMutex* m) : m_(m), locked_(lock::lock(m) == 0) {}
    ~MutexGuard() {
        if (locked_) lock::unlock(m_); // GCOVR_EXCL_BR_LINE
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    bool locked() const { return locked_; }

  private:
    QosaMutex* m_;
    bool locked_;
};

} // namespace qosa::detail
