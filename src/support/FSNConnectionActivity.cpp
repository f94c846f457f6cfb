#include "support/FSNConnectionActivity.h"

FSNConnectionActivity &FSNConnectionActivity::instance()
{
    static FSNConnectionActivity notifier;
    return notifier;
}
