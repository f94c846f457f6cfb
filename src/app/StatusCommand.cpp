#include "app/StatusCommand.h"

#include "engine/vd_Searcher.h"
#include "support/ls_Keychain.h"
#include "utils/ComputerInfoFile.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QFileInfo>
#include <QTextStream>

int StatusCommand::run(const QStringList &args)
{
    QTextStream out(stdout);
    if (!args.isEmpty()) {
        QTextStream(stderr) << "Usage: vandrel status\n";
        return 64;
    }
    vd_FileUtils::resetVandrelFolderCache();
    const bool passwordSet =
        !ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()).value_or(QString()).isEmpty();
    out << "Computer id:    " << vd_FileUtils::getComputerUUID() << "\n"
        << "Computer name:  " << vd_SimpleUtils::computerName() << "\n"
        << "Password:       " << (passwordSet ? "set" : "not set") << "\n";

    const QStringList roots = vd_FileUtils::storageFoldersDropBoxGDriveEtc();
    if (roots.isEmpty()) {
        out << "Storage folders: none (no Dropbox or Google Drive folder holds an \"Apps/vandrel\" folder)\n";
        return 0;
    }
    out << "Storage folders:\n";
    for (const QString &root : roots) {
        const qsizetype sessions = vd_Searcher::get_sessions(root, false).value_or(QJsonObject()).size();
        const bool infoFile = QFileInfo::exists(ComputerInfoFile::computerInfoFilePath(root));
        out << "  " << root << "\n"
            << "      sessions: " << sessions
            << ", computer info file: " << (infoFile ? "present" : "missing") << "\n";
    }
    return 0;
}
