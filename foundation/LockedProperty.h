#pragma once
// Getter and setter of a property guarded by its class's `mutex_`, the way the library's shared objects keep
// values that the caller's thread and the work queue both touch. The getter returns a copy; the setter
// destroys the old value after releasing the lock, so that a callback whose captures call back into the
// object cannot deadlock.

#include <mutex>
#include <utility>

#define ZRV_LOCKED_PROPERTY(Class, type, getter, setter, field) \
  type Class::getter() const {                                  \
    std::lock_guard lock(mutex_);                               \
    return field;                                               \
  }                                                             \
  void Class::setter(type newValue) {                           \
    type old;                                                   \
    {                                                           \
      std::lock_guard lock(mutex_);                             \
      old = std::exchange(field, std::move(newValue));          \
    }                                                           \
  }
