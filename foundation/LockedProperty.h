#pragma once
// Getter and setter of a property guarded by its class's `mutex_`, the way the library's shared objects keep
// values that the caller's thread and the work queue both touch. The getter returns a copy; the setter
// destroys the old value after releasing the lock, so that a callback whose captures call back into the
// object cannot deadlock.

#include <filesystem>
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

// The same for a path kept as its text: a path splits itself into its parts whenever it is made or copied, so
// an object made by the ten thousand keeps the text and hands out a path only when asked for one.
#define ZRV_LOCKED_PATH_PROPERTY(Class, getter, setter, field) \
  std::filesystem::path Class::getter() const {                \
    std::lock_guard lock(mutex_);                              \
    return std::filesystem::path(field);                       \
  }                                                            \
  void Class::setter(std::filesystem::path newValue) {         \
    std::lock_guard lock(mutex_);                              \
    field = newValue.native();                                 \
  }
