#pragma once

#include <QString>

// Where this Linux system keeps the facts the agent identifies itself by.
namespace SystemIdentity {

// The user-visible computer name: PRETTY_HOSTNAME from machine-info (systemd-hostnamed's store), else the
// host name. Empty when neither is set. machineInfoPath is a parameter so tests can supply their own file.
QString prettyComputerName(const QString &machineInfoPath = QStringLiteral("/etc/machine-info"));

} // namespace SystemIdentity
