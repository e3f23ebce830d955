// ThreadSanitizer builds only (TVC_TSAN): GCC 12's ThreadSanitizer runtime does not intercept
// pthread_mutex_clocklock, which libstdc++'s std::timed_mutex::try_lock_for calls (the
// library's password-file gate).  Unseen, every release of the gate reads as "unlock of an
// unlocked mutex" and the gate orders nothing, so every access it protects would read as a
// race.  Linked into each test program and driver, this definition comes before the C
// library's and tells the runtime about the lock around the real call.
#include <dlfcn.h>
#include <pthread.h>
#include <sanitizer/tsan_interface.h>

extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const struct timespec* deadline) {
    using Lock = int (*)(pthread_mutex_t*, clockid_t, const struct timespec*);
    static const Lock real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_clocklock"));
    __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
    const int result = real(mutex, clock, deadline);
    __tsan_mutex_post_lock(mutex, result == 0 ? __tsan_mutex_try_lock : __tsan_mutex_try_lock_failed, 0);
    return result;
}
