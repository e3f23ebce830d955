// ThreadSanitizer builds only (TVC_TSAN): two gaps of GCC 12's runtime, bridged for the programs
// built with the tests.  The definitions here come before those of the runtime and the C library.
#include <dlfcn.h>
#include <pthread.h>
#include <sanitizer/tsan_interface.h>

// The runtime does not intercept pthread_mutex_clocklock, which std::timed_mutex::try_lock_for
// calls (the library's password-file gate).  Unseen, every release of the gate reads as "unlock
// of an unlocked mutex" and the gate orders nothing, so all it protects would read as races.
extern "C" int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const struct timespec* deadline) {
    using Lock = int (*)(pthread_mutex_t*, clockid_t, const struct timespec*);
    static const Lock real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, "pthread_mutex_clocklock"));
    __tsan_mutex_pre_lock(mutex, __tsan_mutex_try_lock);
    const int result = real(mutex, clock, deadline);
    __tsan_mutex_post_lock(mutex, result == 0 ? __tsan_mutex_try_lock : __tsan_mutex_try_lock_failed, 0);
    return result;
}

// The runtime's dlopen and dlclose rescan the loaded modules for its called_from_lib
// suppressions (which tsan.supp does not use) and leak 1.1 MiB of address space each time.
// libpam opens and closes every module of a service per session: within seconds of logins the
// process holds enough that fork fails with ENOMEM, and the library's commands cannot start.
// The C library's own functions, by version, bypass the runtime's.
extern "C" void* dlopen(const char* file, int mode) {
    using Open = void* (*)(const char*, int);
    static const Open real = reinterpret_cast<Open>(dlvsym(RTLD_NEXT, "dlopen", "GLIBC_2.34"));
    return real(file, mode);
}

extern "C" int dlclose(void* handle) {
    using Close = int (*)(void*);
    static const Close real = reinterpret_cast<Close>(dlvsym(RTLD_NEXT, "dlclose", "GLIBC_2.34"));
    return real(handle);
}
