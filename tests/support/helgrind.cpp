// Tells valgrind's helgrind what the atomics of an instrumented build do. Helgrind knows the locks
// of the C library but takes an atomic operation for a plain access: it reports the polled flags of
// the library and sees no order in what they publish.
//
// The `helgrind` preset has the compiler turn every atomic operation into a call, as the thread
// sanitizer has it, and this file answers the calls in the place of the sanitizer's runtime:
//
// - The accesses. To helgrind a locked instruction only reads, so atomic operations are carried out
//   by those, or by loads, and never race with each other; with a plain write they do. An atomic
//   write beside a plain read goes unnoticed; the thread sanitizer reports that.
// - The order. A release is told before the operation and an acquire after it, so that helgrind
//   finds between threads the order that the program asked for and no other: what is published with
//   a relaxed store is reported.
//
// And one thing about the C library: a wait for a condition that took the signal of another waiter
// gives one back, without the lock. Helgrind takes that for a signal of the program's, so its
// errors are off while a thread is in such a wait.

#include <cstdint>
#include <ctime>

#include <dlfcn.h>
#include <pthread.h>
#include <valgrind/helgrind.h>
#include <valgrind/valgrind.h>

namespace {

bool acquires(int order) {
    return order != __ATOMIC_RELAXED && order != __ATOMIC_RELEASE;
}

bool releases(int order) {
    return order == __ATOMIC_RELEASE || order == __ATOMIC_ACQ_REL || order == __ATOMIC_SEQ_CST;
}

// The order of one atomic operation, told around it. The operation itself has the strongest one:
// what runs is never weaker than what helgrind is told.
class told_order {
public:
    told_order(const volatile void* place, int order) : place_(place), order_(order) {
        if (releases(order_)) {
            ANNOTATE_HAPPENS_BEFORE(place_);
        }
    }
    ~told_order() {
        if (acquires(order_)) {
            ANNOTATE_HAPPENS_AFTER(place_);
        }
    }
    told_order(const told_order&) = delete;
    told_order& operator=(const told_order&) = delete;

private:
    const volatile void* place_;
    int order_;
};

// The runtime's own `name`, which the one below stands in front of.
template <typename function>
function* real(const char* name) {
    return reinterpret_cast<function*>(::dlsym(RTLD_NEXT, name));
}

// Helgrind's errors in this thread are off while it lives; also when the thread is cancelled.
class errors_off {
public:
    errors_off() { VALGRIND_DISABLE_ERROR_REPORTING; }
    ~errors_off() { VALGRIND_ENABLE_ERROR_REPORTING; }
    errors_off(const errors_off&) = delete;
    errors_off& operator=(const errors_off&) = delete;
};

} // namespace

// The names are the compiler's. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void __tsan_init() {}

void __tsan_atomic_thread_fence(int /*order*/) {
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}

void __tsan_atomic_signal_fence(int /*order*/) {}

#define KIV_MODIFICATION(bits, name)                                                               \
    std::uint##bits##_t __tsan_atomic##bits##_fetch_##name(                                        \
        volatile std::uint##bits##_t* place, std::uint##bits##_t operand, int order) {             \
        const told_order told(place, order);                                                       \
        return __atomic_fetch_##name(place, operand, __ATOMIC_SEQ_CST);                            \
    }

// A store is carried out by an exchange, whose instruction is a locked one.
#define KIV_ATOMICS_OF(bits)                                                                       \
    std::uint##bits##_t __tsan_atomic##bits##_load(const volatile std::uint##bits##_t* place,      \
                                                   int order) {                                    \
        const told_order told(place, order);                                                       \
        return __atomic_load_n(place, __ATOMIC_SEQ_CST);                                           \
    }                                                                                              \
    void __tsan_atomic##bits##_store(volatile std::uint##bits##_t* place,                          \
                                     std::uint##bits##_t value, int order) {                       \
        const told_order told(place, order);                                                       \
        __atomic_exchange_n(place, value, __ATOMIC_SEQ_CST);                                       \
    }                                                                                              \
    std::uint##bits##_t __tsan_atomic##bits##_exchange(volatile std::uint##bits##_t* place,        \
                                                       std::uint##bits##_t value, int order) {     \
        const told_order told(place, order);                                                       \
        return __atomic_exchange_n(place, value, __ATOMIC_SEQ_CST);                                \
    }                                                                                              \
    std::uint##bits##_t __tsan_atomic##bits##_compare_exchange_val(                                \
        volatile std::uint##bits##_t* place, std::uint##bits##_t expected,                         \
        std::uint##bits##_t value, int order, int /*failure_order*/) {                             \
        const told_order told(place, order);                                                       \
        __atomic_compare_exchange_n(place, &expected, value, /*weak=*/false, __ATOMIC_SEQ_CST,     \
                                    __ATOMIC_SEQ_CST);                                             \
        return expected;                                                                           \
    }                                                                                              \
    KIV_MODIFICATION(bits, add)                                                                    \
    KIV_MODIFICATION(bits, sub)                                                                    \
    KIV_MODIFICATION(bits, and)                                                                    \
    KIV_MODIFICATION(bits, or)                                                                     \
    KIV_MODIFICATION(bits, xor)

KIV_ATOMICS_OF(8)
KIV_ATOMICS_OF(16)
KIV_ATOMICS_OF(32)
KIV_ATOMICS_OF(64)

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    auto* const wait = real<decltype(pthread_cond_wait)>("pthread_cond_wait");
    const errors_off off;
    return wait(condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           const timespec* deadline) {
    auto* const wait = real<decltype(pthread_cond_timedwait)>("pthread_cond_timedwait");
    const errors_off off;
    return wait(condition, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
    auto* const wait = real<decltype(pthread_cond_clockwait)>("pthread_cond_clockwait");
    const errors_off off;
    return wait(condition, mutex, clock, deadline);
}

// What the first thread to reach a static variable of a function made is published by its guard.
// The code around the variable reads the guard with the load above.
int __cxa_guard_acquire(std::uint64_t* guard) {
    const told_order told(guard, __ATOMIC_ACQUIRE);
    return real<int(std::uint64_t*)>("__cxa_guard_acquire")(guard);
}

void __cxa_guard_release(std::uint64_t* guard) {
    const told_order told(guard, __ATOMIC_RELEASE);
    real<void(std::uint64_t*)>("__cxa_guard_release")(guard);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
