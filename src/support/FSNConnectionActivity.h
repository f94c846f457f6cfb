#pragma once

#include <QObject>

// Process-wide notices of HTTP activity, for a busy indicator. FSNConnectionActivityBegan is emitted when
// the set of live connections goes from empty to one, FSNConnectionActivityEnded when it becomes empty
// again; overlapping connections give one pair. Both are emitted on the thread that caused the
// transition (the one calling start or cancel, or the main thread at completion) while the live set is
// locked, so they always alternate: connect with Qt::QueuedConnection for anything more than a flag.
class FSNConnectionActivity : public QObject
{
    Q_OBJECT
public:
    static FSNConnectionActivity &instance();

Q_SIGNALS:
    void FSNConnectionActivityBegan();
    void FSNConnectionActivityEnded();
};
