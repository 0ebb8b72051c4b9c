#include "platform/Background.h"

QThreadPool &backgroundPool()
{
    // Never destroyed: waiting at exit for a child process that never ends would hang quitting.
    static QThreadPool *pool = [] {
        auto *created = new QThreadPool;
        created->setMaxThreadCount(64);
        created->setExpiryTimeout(30000);
        return created;
    }();
    return *pool;
}
