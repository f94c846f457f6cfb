#pragma once

#include <QString>

#include <functional>
#include <optional>

// Copies and moves that never lose data. A copy is written under a temporary name in the destination
// folder, flushed to disk, checked, and only then renamed to its final name, which must be free: nothing is
// ever overwritten, and a failure leaves no partial item under the final name. A move within one file system
// is a rename; across file systems it is such a copy followed by removing the source. Symbolic links are
// copied as links, never followed.
namespace FileOperations {

// Called before each chunk a copy writes, with the destination's final path and the bytes of that file
// written so far; answering false fails the copy there. Tests use it to interrupt copies.
using InterruptionCheck = std::function<bool(const QString &destination, qint64 written)>;

// The error text of a failure (the system's words for it), or none on success.
using Failure = std::optional<QString>;

Failure copyItem(const QString &source, const QString &destination, const InterruptionCheck &check = {});
Failure moveItem(const QString &source, const QString &destination, const InterruptionCheck &check = {});

} // namespace FileOperations
