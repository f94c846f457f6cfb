#pragma once

#include <QString>
#include <QStringList>

// Where this Linux system keeps the facts the agent identifies itself by.
namespace SystemIdentity {

// The user-visible computer name: PRETTY_HOSTNAME from machine-info (systemd-hostnamed's store), else the
// host name. Empty when neither is set. machineInfoPath is a parameter so tests can supply their own file.
QString prettyComputerName(const QString &machineInfoPath = QStringLiteral("/etc/machine-info"));

// The machine's stable id: the first non-empty line of the first readable file among the candidates
// (systemd's machine-id, then D-Bus's copy). Empty when none gives one.
QString machineId(const QStringList &candidates = {QStringLiteral("/etc/machine-id"),
                                                   QStringLiteral("/var/lib/dbus/machine-id")});

} // namespace SystemIdentity
