// The process-wide static-object lock of ACE, which serialises creation and
// tear-down of the library's singletons (the logger and the client instance).
#ifndef VEL_BASE_STATIC_LOCK_H_
#define VEL_BASE_STATIC_LOCK_H_

#include <ace/OS_NS_Thread.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Static_Object_Lock.h>

namespace VEL {

// Holds the static-object lock for its lifetime when locked() is true.
class StaticObjectGuard {
 public:
  StaticObjectGuard() {
    ACE_Recursive_Thread_Mutex* m = ACE_Static_Object_Lock::instance();
    if (m != nullptr && ACE_OS::mutex_lock(&m->lock()) != -1) {
      mutex_ = m;
    }
  }
  ~StaticObjectGuard() {
    if (mutex_ != nullptr) {
      ACE_OS::mutex_unlock(&mutex_->lock());
    }
  }
  StaticObjectGuard(const StaticObjectGuard&) = delete;
  StaticObjectGuard& operator=(const StaticObjectGuard&) = delete;

  bool locked() const { return mutex_ != nullptr; }

 private:
  ACE_Recursive_Thread_Mutex* mutex_ = nullptr;
};

}  // namespace VEL

#endif  // VEL_BASE_STATIC_LOCK_H_
