// What glibc keeps in the words of a pthread mutex. Looked at, never changed.
#pragma once

#include "iosched/shared.h"

struct MutexWords {
    uint32_t lock;   // 0 free, 1 locked, 2 locked and perhaps waited for
    uint32_t owner;  // thread id of the owner, 0 while free
    uint32_t kind;
};

// Shared between processes, of the default type; nothing else is ever initialised.
constexpr uint32_t kSharedMutexKind = 0x80;

inline MutexWords mutexWords(const SharedMutex &mutex) {
    const auto &words = mutex.mutex.__data;
    return {static_cast<uint32_t>(words.__lock), static_cast<uint32_t>(words.__owner),
            static_cast<uint32_t>(words.__kind)};
}

inline bool looksLikeMutex(const SharedMutex &mutex) {
    return mutexWords(mutex).kind == kSharedMutexKind;
}
