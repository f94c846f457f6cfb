#include "DropboxHome.h"

#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QDateTime>

DropboxHome::DropboxHome()
{
    setEnvironment("VANDREL_KEYCHAIN", "file");
    writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
    // The StorageRoot found for an earlier home is remembered by this process.
    vd_FileUtils::resetVandrelFolderCache();
}

QString DropboxHome::root() const
{
    return filePath(QStringLiteral("Dropbox/Apps/vandrel"));
}

void writeMarker(const TempHome &home, const QString &appFolder, double ageSeconds, const QDateTime &now)
{
    home.writeFile(
        appFolder + QStringLiteral("/data.vdldata/sessions_are_here.json"),
        QStringLiteral("{\"date\": %1}").arg(vd_FileUtils::JSONDate(now) - ageSeconds, 0, 'f', 3).toUtf8());
}

QString DropboxHome::addSession(const QString &id, const QString &storageRoot) const
{
    const QString file = (storageRoot.isEmpty() ? root() : storageRoot) +
                         QStringLiteral("/data.vdldata/sessions/") + id + QStringLiteral(".json");
    writeFile(file.mid(path().size() + 1),
              QStringLiteral("{\"date\": %1}")
                  .arg(vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 0, 'f', 3)
                  .toUtf8());
    return file;
}

void DropboxHome::setPassword(const QString &password) const
{
    ls_Keychain::setString(password, vd_FileUtils::keyForComputerPassword());
}
