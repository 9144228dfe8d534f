// RAII lock over the library's own mutex.
#pragma once

#include "qosa_lock.h"

namespace qosa::detail {

class MutexGuard {
  public:
    explicit MutexGuard(QosaMutex* m) : m_(m), locked_(QOSA_MutexLock(m) == 0) {}
    ~MutexGuard() {
        if (locked_) QOSA_MutexUnLock(m_);
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    bool locked() const { return locked_; }

  private:
    QosaMutex* m_;
    bool locked_;
};

} // namespace qosa::detail
