/// Scoped hold of a kit mutex: locked for the life of the object, released on every path.
#ifndef VEXO_KIT_LOCK_H
#define VEXO_KIT_LOCK_H

#include "vexo_thread.h"

class kit_lock {
  public:
    explicit kit_lock(vexo_mutex_t mutex) : mutex_(mutex) { vexo_hal_mutex_lock(mutex_); }
    ~kit_lock() { vexo_hal_mutex_unlock(mutex_); }
    kit_lock(const kit_lock &) = delete;
    kit_lock &operator=(const kit_lock &) = delete;

  private:
    vexo_mutex_t mutex_;
};

#endif
