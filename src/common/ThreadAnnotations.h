#pragma once

/// \file
/// \brief Locks the compiler checks: lock annotations and the annotated
/// mutex types the library locks through.
///
/// Under clang, with -Wthread-safety, these macros
/// let the compiler prove that a member is only touched with its lock held, a
/// function is called with the locks it needs (and without those it takes
/// itself), and every lock taken is released. Elsewhere they expand to nothing.
///
/// The lock order written with ZV_ACQUIRED_AFTER/BEFORE is only checked with
/// -Wthread-safety-beta; with plain -Wthread-safety it documents the order.
///
/// std::mutex and std::lock_guard carry no annotations in libstdc++, so the
/// library locks through the wrappers below instead.

#include <cassert>
#include <mutex>

#if defined(__clang__)
#define ZV_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define ZV_THREAD_ANNOTATION_(x)
#endif

/// A type that is a lock ("mutex"), or an object that holds one for its scope.
#define ZV_CAPABILITY(name) ZV_THREAD_ANNOTATION_(capability(name))
/// An object that holds a lock for its scope.
#define ZV_SCOPED_CAPABILITY ZV_THREAD_ANNOTATION_(scoped_lockable)

/// The member is read and written only with the lock held; for a pointer,
/// ZV_PT_GUARDED_BY guards what it points to.
#define ZV_GUARDED_BY(lock) ZV_THREAD_ANNOTATION_(guarded_by(lock))
/// What the pointer points to is read and written only with the lock held.
#define ZV_PT_GUARDED_BY(lock) ZV_THREAD_ANNOTATION_(pt_guarded_by(lock))

/// The lock order: this lock is taken only before the locks named.
#define ZV_ACQUIRED_BEFORE(...) ZV_THREAD_ANNOTATION_(acquired_before(__VA_ARGS__))
/// The lock order: this lock is taken only while holding the locks named.
#define ZV_ACQUIRED_AFTER(...) ZV_THREAD_ANNOTATION_(acquired_after(__VA_ARGS__))

/// The caller holds the locks.
#define ZV_REQUIRES(...) ZV_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
/// The caller holds the locks, at least shared.
#define ZV_REQUIRES_SHARED(...) ZV_THREAD_ANNOTATION_(requires_shared_capability(__VA_ARGS__))
/// The caller does not hold the locks (the function takes them itself).
#define ZV_EXCLUDES(...) ZV_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))

/// The function takes the locks and returns with them held; without
/// arguments, the object it is called on.
#define ZV_ACQUIRE(...) ZV_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
/// The function releases the locks and returns with them released; without
/// arguments, the object it is called on.
#define ZV_RELEASE(...) ZV_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
/// The function tries to take the locks; its first argument is the result
/// that means success.
#define ZV_TRY_ACQUIRE(...) ZV_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))

/// The function fails unless the lock is held; the analysis takes it as held.
#define ZV_ASSERT_CAPABILITY(lock) ZV_THREAD_ANNOTATION_(assert_capability(lock))
/// The function returns a reference to the lock named.
#define ZV_RETURN_CAPABILITY(lock) ZV_THREAD_ANNOTATION_(lock_returned(lock))

/// The function's body is not checked; each use says why at that line.
#define ZV_NO_THREAD_SAFETY_ANALYSIS ZV_THREAD_ANNOTATION_(no_thread_safety_analysis)

namespace zv_client {
namespace common {

/// \brief std::mutex, as a lock the analysis knows.
///
/// The same size and layout as the std::mutex it wraps, so it can replace
/// one in a class of the ABI. Constant initialised, as std::mutex is: a
/// static one is usable at any time. Thread-safe as std::mutex is.
class ZV_CAPABILITY("mutex") Mutex {
 public:
  /// An unlocked mutex.
  constexpr Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  /// Takes the mutex, waiting for it (std::mutex::lock).
  void lock() ZV_ACQUIRE() { mutex_.lock(); }
  /// Releases the mutex, which the calling thread holds.
  void unlock() ZV_RELEASE() { mutex_.unlock(); }

  /// \brief The std::mutex underneath.
  ///
  /// For a std::unique_lock that must stay one (a function of the ABI takes
  /// it) or that a std::condition_variable waits on: the analysis does not
  /// see what such a lock does, so take and release it through the calls
  /// below, or hold it with MutexLock and use MutexLock::native().
  /// \return the wrapped mutex, owned by this object.
  std::mutex& native() ZV_RETURN_CAPABILITY(this) { return mutex_; }
  /// Takes this mutex through `held`, a std::unique_lock on native().
  void LockThrough(std::unique_lock<std::mutex>& held) ZV_ACQUIRE() {
    assert(held.mutex() == &mutex_);
    held.lock();
  }
  /// Releases this mutex through `held`, a std::unique_lock on native().
  void UnlockThrough(std::unique_lock<std::mutex>& held) ZV_RELEASE() {
    assert(held.mutex() == &mutex_);
    held.unlock();
  }
  /// Tells the analysis that this mutex is held from here on: `held`, a
  /// std::unique_lock on native() that came in as a parameter, holds it.
  void AssertHeldBy(const std::unique_lock<std::mutex>& held) const ZV_ASSERT_CAPABILITY(this) {
    assert(held.mutex() == &mutex_ && held.owns_lock());
    (void)held;
  }
  /// The same where the analysis cannot see the lock taken at all (a call
  /// through a std::function). std::mutex cannot tell who holds it, so this
  /// checks nothing at run time: the comment at each use says who holds it.
  void AssertHeld() const ZV_ASSERT_CAPABILITY(this) {}

 private:
  std::mutex mutex_;
};

/// \brief std::recursive_mutex, as a lock the analysis knows.
///
/// The analysis itself does not allow for taking it again: a thread does
/// that only in another function (a nested callback), where it cannot see
/// the outer hold.
class ZV_CAPABILITY("mutex") RecursiveMutex {
 public:
  /// An unlocked mutex.
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  /// Takes the mutex, waiting for it; the holding thread may take it again.
  void lock() ZV_ACQUIRE() { mutex_.lock(); }
  /// Releases one hold of the calling thread.
  void unlock() ZV_RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

/// Holds a Mutex for its scope, like std::unique_lock: unlock() and lock()
/// release and retake it before the scope ends, and the destructor releases
/// it only if held. Used by one thread.
class ZV_SCOPED_CAPABILITY MutexLock {
 public:
  /// Takes `mutex`, waiting for it; `mutex` must outlive this object.
  explicit MutexLock(Mutex& mutex) ZV_ACQUIRE(mutex) : lock_(mutex.native()) {}
  /// Not taken yet: lock() takes it.
  MutexLock(Mutex& mutex, std::defer_lock_t) ZV_EXCLUDES(mutex) : lock_(mutex.native(), std::defer_lock) {}
  /// Releases the mutex if held.
  ~MutexLock() ZV_RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  /// Takes the mutex again (it must not be held by this object).
  void lock() ZV_ACQUIRE() { lock_.lock(); }
  /// Releases the mutex before the scope ends (it must be held).
  void unlock() ZV_RELEASE() { lock_.unlock(); }
  /// Whether this object holds the mutex now.
  bool owns_lock() const { return lock_.owns_lock(); }

  /// The std::unique_lock underneath, for a std::condition_variable to wait
  /// on (the mutex is held again when the wait returns, as the analysis
  /// assumes throughout) and for a function of the ABI that takes one.
  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

/// Holds a RecursiveMutex for its scope. Used by one thread.
class ZV_SCOPED_CAPABILITY RecursiveMutexLock {
 public:
  /// Takes `mutex`; `mutex` must outlive this object.
  explicit RecursiveMutexLock(RecursiveMutex& mutex) ZV_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  /// Releases the hold taken.
  ~RecursiveMutexLock() ZV_RELEASE() { mutex_.unlock(); }
  RecursiveMutexLock(const RecursiveMutexLock&) = delete;
  RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

 private:
  RecursiveMutex& mutex_;
};

}  // namespace common
}  // namespace zv_client
