// A look at a mutex from outside, by what any thread may ask of it.
#ifndef SUPPORT_MUTEX_H
#define SUPPORT_MUTEX_H

#include <pthread.h>

namespace support {

// Nobody holds it, the calling thread included.
inline bool isFree(pthread_mutex_t& mutex)
{
    if (pthread_mutex_trylock(&mutex) != 0) return false;
    pthread_mutex_unlock(&mutex);
    return true;
}

// Makes a mutex that nobody uses yet one that refuses whoever gives it up without holding it.
inline bool makeStrict(pthread_mutex_t& mutex)
{
    pthread_mutexattr_t strict;
    bool made = pthread_mutexattr_init(&strict) == 0 &&
                pthread_mutexattr_settype(&strict, PTHREAD_MUTEX_ERRORCHECK) == 0 &&
                pthread_mutex_destroy(&mutex) == 0 && pthread_mutex_init(&mutex, &strict) == 0;
    pthread_mutexattr_destroy(&strict);
    return made;
}

} // namespace support

#endif
