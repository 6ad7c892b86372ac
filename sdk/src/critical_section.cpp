#include "qxhost/critical_section.h"

void QxInitializeCriticalSection(pthread_mutex_t* pSection) {
    if (pSection == nullptr) {
        return;
    }
    pthread_mutexattr_t stAttributes;
    pthread_mutexattr_init(&stAttributes);
    pthread_mutexattr_settype(&stAttributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(pSection, &stAttributes);
    pthread_mutexattr_destroy(&stAttributes);
}

void QxDeleteCriticalSection(pthread_mutex_t* pSection) {
    if (pSection != nullptr) {
        pthread_mutex_destroy(pSection);
    }
}
