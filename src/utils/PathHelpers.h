#pragma once

#include <QDateTime>
#include <QString>

// Small conversions and file facts that several request handlers share. None reports errors: each
// has its documented fallback.

// Decimal text, "-" for negatives, no padding or grouping.
QString IntToString(qint32 value);

// printf "%.Nf" with N = digits - 1 (0 when digits <= 1): callers pass 2 to get one decimal.
QString DoubleToString(double value, int digits);

// Seconds between 2001-01-01 00:00 UTC and the item's modification time, not following a final symbolic
// link, nanoseconds as the fraction. A missing item reads as 1904-01-01 (-3061152000) so it sorts as very
// old.
double GetFileModificationDateSecondsSince2000(const QString &path);

// The same moment as a date.
QDateTime GetFileModificationDate(const QString &path);

// True only when something exists at the path and it is a folder (a link to a folder counts).
bool IsDirectory(const QString &path);
