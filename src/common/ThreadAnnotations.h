#pragma once

// Locks the compiler checks. Under clang, with -Wthread-safety, these macros
// let the compiler prove that a member is only touched with its lock held, a
// function is called with the locks it needs (and without those it takes
// itself), and every lock taken is released. Elsewhere they expand to nothing.
//
// The lock order written with ZV_ACQUIRED_AFTER/BEFORE is only checked with
// -Wthread-safety-beta; with plain -Wthread-safety it documents the order.
//
// std::mutex and std::lock_guard carry no annotations in libstdc++, so the
// library locks through the wrappers below instead.

#include <cassert>
#include <mutex>

#if defined(__clang__)
#define ZV_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define ZV_THREAD_ANNOTATION_(x)
#endif

// A type that is a lock ("mutex"), or an object that holds one for its scope.
#define ZV_CAPABILITY(name) ZV_THREAD_ANNOTATION_(capability(name))
#define ZV_SCOPED_CAPABILITY ZV_THREAD_ANNOTATION_(scoped_lockable)

// The member is read and written only with the lock held; for a pointer,
// ZV_PT_GUARDED_BY guards what it points to.
#define ZV_GUARDED_BY(lock) ZV_THREAD_ANNOTATION_(guarded_by(lock))
#define ZV_PT_GUARDED_BY(lock) ZV_THREAD_ANNOTATION_(pt_guarded_by(lock))

// The lock order: this lock is taken only while holding, or only before, the
// locks named.
#define ZV_ACQUIRED_BEFORE(...) ZV_THREAD_ANNOTATION_(acquired_before(__VA_ARGS__))
#define ZV_ACQUIRED_AFTER(...) ZV_THREAD_ANNOTATION_(acquired_after(__VA_ARGS__))

// The caller holds (ZV_REQUIRES) or does not hold (ZV_EXCLUDES) the locks.
#define ZV_REQUIRES(...) ZV_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
#define ZV_REQUIRES_SHARED(...) ZV_THREAD_ANNOTATION_(requires_shared_capability(__VA_ARGS__))
#define ZV_EXCLUDES(...) ZV_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))

// The function takes (ZV_ACQUIRE) or releases (ZV_RELEASE) the locks and
// returns with them so; without arguments, the object it is called on.
#define ZV_ACQUIRE(...) ZV_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
#define ZV_RELEASE(...) ZV_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
#define ZV_TRY_ACQUIRE(...) ZV_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))

// The function fails unless the lock is held; the analysis takes it as held.
#define ZV_ASSERT_CAPABILITY(lock) ZV_THREAD_ANNOTATION_(assert_capability(lock))
// The function returns a reference to the lock named.
#define ZV_RETURN_CAPABILITY(lock) ZV_THREAD_ANNOTATION_(lock_returned(lock))

// The function's body is not checked; each use says why at that line.
#define ZV_NO_THREAD_SAFETY_ANALYSIS ZV_THREAD_ANNOTATION_(no_thread_safety_analysis)

namespace zv_client {
namespace common {

// std::mutex, as a lock the analysis knows. The same size and layout as the
// std::mutex it wraps, so it can replace one in a class of the ABI. Constant
// initialised, as std::mutex is: a static one is usable at any time.
class ZV_CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() ZV_ACQUIRE() { mutex_.lock(); }
  void unlock() ZV_RELEASE() { mutex_.unlock(); }

  // For a std::unique_lock that must stay one (a function of the ABI takes
  // it) or that a std::condition_variable waits on: the analysis does not
  // see what such a lock does, so take and release it through the calls
  // below, or hold it with MutexLock and use MutexLock::native().
  std::mutex& native() ZV_RETURN_CAPABILITY(this) { return mutex_; }
  // Takes or releases this mutex through `held`, a std::unique_lock on native().
  void LockThrough(std::unique_lock<std::mutex>& held) ZV_ACQUIRE() {
    assert(held.mutex() == &mutex_);
    held.lock();
  }
  void UnlockThrough(std::unique_lock<std::mutex>& held) ZV_RELEASE() {
    assert(held.mutex() == &mutex_);
    held.unlock();
  }
  // Tells the analysis that this mutex is held from here on: `held`, a
  // std::unique_lock on native() that came in as a parameter, holds it.
  void AssertHeldBy(const std::unique_lock<std::mutex>& held) const ZV_ASSERT_CAPABILITY(this) {
    assert(held.mutex() == &mutex_ && held.owns_lock());
    (void)held;
  }
  // The same where the analysis cannot see the lock taken at all (a call
  // through a std::function). std::mutex cannot tell who holds it, so this
  // checks nothing at run time: the comment at each use says who holds it.
  void AssertHeld() const ZV_ASSERT_CAPABILITY(this) {}

 private:
  std::mutex mutex_;
};

// std::recursive_mutex, as a lock the analysis knows. The analysis itself
// does not allow for taking it again: a thread does that only in another
// function (a nested callback), where it cannot see the outer hold.
class ZV_CAPABILITY("mutex") RecursiveMutex {
 public:
  RecursiveMutex() = default;
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void lock() ZV_ACQUIRE() { mutex_.lock(); }
  void unlock() ZV_RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// Holds a Mutex for its scope, like std::unique_lock: unlock() and lock()
// release and retake it before the scope ends, and the destructor releases
// it only if held.
class ZV_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ZV_ACQUIRE(mutex) : lock_(mutex.native()) {}
  // Not taken yet: lock() takes it.
  MutexLock(Mutex& mutex, std::defer_lock_t) ZV_EXCLUDES(mutex) : lock_(mutex.native(), std::defer_lock) {}
  ~MutexLock() ZV_RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() ZV_ACQUIRE() { lock_.lock(); }
  void unlock() ZV_RELEASE() { lock_.unlock(); }
  bool owns_lock() const { return lock_.owns_lock(); }

  // The std::unique_lock underneath, for a std::condition_variable to wait
  // on (the mutex is held again when the wait returns, as the analysis
  // assumes throughout) and for a function of the ABI that takes one.
  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

// Holds a RecursiveMutex for its scope.
class ZV_SCOPED_CAPABILITY RecursiveMutexLock {
 public:
  explicit RecursiveMutexLock(RecursiveMutex& mutex) ZV_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~RecursiveMutexLock() ZV_RELEASE() { mutex_.unlock(); }
  RecursiveMutexLock(const RecursiveMutexLock&) = delete;
  RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

 private:
  RecursiveMutex& mutex_;
};

}  // namespace common
}  // namespace zv_client
