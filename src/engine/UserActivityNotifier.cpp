#include "engine/UserActivityNotifier.h"

UserActivityNotifier &UserActivityNotifier::instance()
{
    static UserActivityNotifier notifier;
    return notifier;
}
