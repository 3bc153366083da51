#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#include "Zel/Export.h"
#include "Zel/List.h"

namespace Zel {

/// Names an attribute in a notification.
using AttributeId = std::uint32_t;

constexpr AttributeId timeAttribute = 0x102;           ///< of a `Clock`
constexpr AttributeId readableCountAttribute = 0x103;  ///< of a `FileDescriptor`
constexpr AttributeId writableCountAttribute = 0x104;  ///< of a `FileDescriptor`

/// Base of everything that is counted from within.
///
/// An object is made with `new`, belongs to the `Ptr`s that point at it, and ends with the
/// last of them; it never stands on the stack or inside another object. A new object has a
/// count of zero. Objects do not copy. Counts may change on any thread while
/// `threadSafePointers_` is set; otherwise all of the program's counted pointers belong to
/// one thread.
class ZEL_EXPORT VFPtrInterface {
 public:
  VFPtrInterface(VFPtrInterface const&) = delete;
  VFPtrInterface& operator=(VFPtrInterface const&) = delete;

  /// A snapshot, if other threads count.
  std::uint32_t references() const { return references_.load(std::memory_order_relaxed); }

  /// What each `Ptr` does when it starts to point here.
  void newReference() const noexcept {
    if (threadSafePointers_.load(std::memory_order_relaxed)) {
      references_.fetch_add(1, std::memory_order_relaxed);
    } else {
      references_.store(references() + 1, std::memory_order_relaxed);
    }
  }
  /// The last reference ends the object, see `onZeroReferences`.
  void deleteReference() const noexcept {
    if (threadSafePointers_.load(std::memory_order_relaxed)) {
      if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) onZeroReferences();
    } else {
      auto const left = references() - 1;
      references_.store(left, std::memory_order_relaxed);
      if (left == 0) onZeroReferences();
    }
  }

  /// For the whole program. To be turned off only while there is a single thread, and on
  /// again before a second one starts.
  static void threadSafePointersIs(bool on) {
    threadSafePointers_.store(on, std::memory_order_relaxed);
  }

  static std::atomic<bool> threadSafePointers_;  ///< on at first

 protected:
  VFPtrInterface() = default;
  virtual ~VFPtrInterface();

  /// The last reference has gone: destroys the object, now or, in a class that says so, later.
  virtual void onZeroReferences() const noexcept;

 private:
  mutable std::atomic<std::uint32_t> references_{0};
};

/// A counted pointer to an object derived from `VFPtrInterface`. One `Ptr` is no more
/// thread-safe than a plain pointer; several to one object are, see above.
template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}  ///< null, as the default
  /// Counts the object, which may be null.
  Ptr(T* object) : object_(object) {
    if (object_ != nullptr) object_->newReference();
  }
  Ptr(Ptr const& other) : Ptr(other.object_) {}  ///< counts the object
  /// Leaves `other` null and the count as it is.
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  /// From a pointer to a derived class; counts the object.
  template <class U>
  Ptr(Ptr<U> const& other) : Ptr(other.ptr()) {}
  ~Ptr() {
    if (object_ != nullptr) object_->deleteReference();
  }
  /// Counts the new object before it lets go of the old one.
  Ptr& operator=(Ptr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* ptr() const { return object_; }                             ///< may be null
  T* operator->() const { return object_; }                      ///< not to be used on null
  T& operator*() const { return *object_; }                      ///< not to be used on null
  explicit operator bool() const { return object_ != nullptr; }  ///< not null

 private:
  T* object_ = nullptr;
};

/// Both point at one object.
template <class T, class U>
bool operator==(Ptr<T> const& left, Ptr<U> const& right) {
  return left.ptr() == right.ptr();
}
/// They point at two objects.
template <class T, class U>
bool operator!=(Ptr<T> const& left, Ptr<U> const& right) {
  return left.ptr() != right.ptr();
}
/// It points at nothing.
template <class T>
bool operator==(Ptr<T> const& left, std::nullptr_t) {
  return !left;
}
/// It points at something.
template <class T>
bool operator!=(Ptr<T> const& left, std::nullptr_t) {
  return static_cast<bool>(left);
}

/// A counted object that announces changes of its attributes to notifiees.
///
/// It knows its registered notifiees without owning them; a notifiee owns its notifier.
/// Registering and announcing belong to the thread that runs the activity loop.
class ZEL_EXPORT PtrInterface : public VFPtrInterface {
 public:
  class NotifieeConst;

  /// Calls `visit` with each registered notifiee, in the order of registration.
  void forEachNotifiee(std::function<void(NotifieeConst&)> const& visit);

 protected:
  PtrInterface() = default;
  ~PtrInterface() override;

  /// Tells every notifiee that is registered now and still is when its turn comes, in the
  /// order of registration. Each of them is kept alive while it is told; the caller keeps
  /// this object alive. An exception of a notifiee ends the round and goes on rising.
  void notify(AttributeId id);

 private:
  ListNode<NotifieeConst> notifiees_;
};

/// What is told about the attributes of a notifier. It may be registered, taken out,
/// attached elsewhere and released by any notifiee, also by itself while it is being told.
class ZEL_EXPORT PtrInterface::NotifieeConst : public VFPtrInterface {
 public:
  /// The attribute `id` of the notifier has changed; the new value is read from the
  /// notifier. `value` is reserved, and null. This one does nothing.
  virtual void onAttribute(AttributeId id, void const* value);

  /// The notifier to hear of, null for none. Takes effect while registered.
  void notifierIs(Ptr<PtrInterface> notifier);
  /// Off at first. May be set before there is a notifier, and stays when it changes.
  void isRegisteredNotifieeIs(bool registered);

  Ptr<PtrInterface> const& notifier() const { return notifier_; }  ///< null for none
  bool isRegisteredNotifiee() const { return registered_; }        ///< as was set

 protected:
  NotifieeConst() = default;
  ~NotifieeConst() override;

  /// Called with true when the notifiee has a notifier and is registered, and with false
  /// before either ends by a call; not called by the destructor.
  virtual void attachedIs(bool attached);

 private:
  Ptr<PtrInterface> notifier_;
  ListNode<NotifieeConst> node_{this};
  bool registered_ = false;

  friend class PtrInterface;
};

}  // namespace Zel

namespace std {

/// By the object's address.
template <class T>
struct hash<Zel::Ptr<T>> {
  /// Two that are equal have the same.
  std::size_t operator()(Zel::Ptr<T> const& pointer) const {
    return std::hash<T*>()(pointer.ptr());
  }
};

}  // namespace std
