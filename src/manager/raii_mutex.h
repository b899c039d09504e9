// Scoped lock over a pthread mutex.
#pragma once

#include <pthread.h>

class CRAIIMutex {
public:
    explicit CRAIIMutex(pthread_mutex_t* mutex) : m_pMutex(mutex) { pthread_mutex_lock(m_pMutex); }
    ~CRAIIMutex() { pthread_mutex_unlock(m_pMutex); }
    CRAIIMutex(const CRAIIMutex&) = delete;
    CRAIIMutex& operator=(const CRAIIMutex&) = delete;

private:
    pthread_mutex_t* m_pMutex;
};
