#include "takeover.h"

#include "mutex_words.h"

#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int kLockedAndWaitedFor = 2;

template <class Field>
uint32_t look(const Field &field) {
    return static_cast<uint32_t>(__atomic_load_n(&field, __ATOMIC_SEQ_CST));
}

template <class Field>
void put(Field *field, std::type_identity_t<Field> value) {
    __atomic_store_n(field, value, __ATOMIC_SEQ_CST);
}

}  // namespace

Holder judgeHolder(const SharedMutex *mutex, const Processes &processes, uint32_t *thread) {
    const auto &words = mutex->mutex.__data;
    *thread = 0;
    if (look(words.__lock) == 0) return Holder::kNone;
    const uint32_t owner = look(words.__owner);
    if (owner == 0) return look(words.__lock) == 0 ? Holder::kNone : Holder::kNameless;
    *thread = owner;
    // This process holds no mutex that it asks about: it has been given a dead one's id.
    if (owner == static_cast<uint32_t>(::gettid())) return Holder::kDead;
    if (!cannotHold(processes.holderLife(owner))) return Holder::kAlive;
    // It may have released the mutex just before it ended. Dead, it cannot become the owner again,
    // so what still names it now is what it left.
    return look(words.__owner) == owner ? Holder::kDead : Holder::kAlive;
}

bool canTakeOver(const SharedMutex *mutex) {
    return looksLikeMutex(*mutex) && mutexWords(*mutex).lock <= kLockedAndWaitedFor;
}

void takeOver(SharedMutex *mutex) {
    auto &words = mutex->mutex.__data;
    // From the first store on a death here is a dead owner's like any other.
    put(&words.__owner, static_cast<int>(::gettid()));
    put(&words.__nusers, 1);
    put(&mutex->holder, static_cast<uint32_t>(::getpid()));
    put(&words.__lock, kLockedAndWaitedFor);  // or the unlock wakes nobody
}

bool tryLock(SharedMutex *mutex) {
    if (!canTakeOver(mutex) || ::pthread_mutex_trylock(&mutex->mutex) != 0) return false;
    put(&mutex->holder, static_cast<uint32_t>(::getpid()));
    return true;
}

void release(SharedMutex *mutex) {
    (void)ReleaseSharedMutex(mutex);  // held, so it cannot fail
    wakeAll(mutex);
}

void wakeAll(const SharedMutex *mutex) {
    (void)::syscall(SYS_futex, &mutex->mutex.__data.__lock, FUTEX_WAKE, INT_MAX, nullptr, nullptr,
                    0);
}
