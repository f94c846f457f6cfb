#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// Where this Linux system keeps the facts the agent identifies itself by.
namespace SystemIdentity {

// The user-visible computer name: PRETTY_HOSTNAME from machine-info (systemd-hostnamed's store), else the
// host name. Empty when neither is set. machineInfoPath is a parameter so tests can supply their own file.
QString prettyComputerName(const QString &machineInfoPath = QStringLiteral("/etc/machine-info"));

// The id the system gives this installation, stable across reboots and host renames: the first line of the
// first file that holds 32 hexadecimal digits there. None when no file does (missing, unreadable,
// "uninitialized" on a first boot, anything else). Reads at most a few bytes of each file.
std::optional<QString> machineId(const QStringList &files = {QStringLiteral("/etc/machine-id"),
                                                             QStringLiteral("/var/lib/dbus/machine-id")});

} // namespace SystemIdentity
