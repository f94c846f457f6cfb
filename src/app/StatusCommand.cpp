#include "app/StatusCommand.h"

#include "app/IndexCommand.h"
#include "engine/vd_Searcher.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QFileInfo>
#include <QTextStream>

int runStatusCommand(const QStringList &args)
{
    QTextStream out(stdout);
    if (!args.isEmpty()) {
        QTextStream(stderr) << "usage: vandrel status\n";
        return 64;
    }
    const QString computerId = vd_FileUtils::getComputerUUID();
    const std::optional<bool> password = vd_FileUtils::computerPasswordIsSet();
    out << "Computer name:   " << vd_SimpleUtils::computerName() << "\n"
        << "Computer id:     " << computerId << "\n"
        << "Password:        "
        << (!password   ? "cannot be read"
            : *password ? "set"
                        : "not set")
        << "\n";
    const MetadataConfig config = indexConfigFromSettings();
    // Reading the status must not make a store where the agent never made one.
    if (QFileInfo::exists(config.storePath))
        out << "Index:           " << indexProgressText(MetadataIndex(config).status()) << "\n";
    else
        out << "Index:           not made yet\n";

    const QStringList roots = vd_FileUtils::storageFoldersDropBoxGDriveEtc();
    if (roots.isEmpty()) {
        out << "Storage folders: none found (no Dropbox folder with Apps/vandrel, and no ~/GDrive)\n";
        return 0;
    }
    out << "Storage folders:\n";
    int index = 0;
    for (const QString &root : roots) {
        const qsizetype sessions = vd_Searcher::get_sessions(root, false).value_or(QJsonObject()).size();
        const bool infoFile = QFileInfo::exists(root + QStringLiteral("/data.vdldata/computers/") +
                                                computerId + QStringLiteral(".json"));
        out << "  " << ++index << ". " << root << "\n"
            << "     " << sessions << (sessions == 1 ? " session" : " sessions") << ", computer info file "
            << (infoFile ? "present" : "missing") << "\n";
    }
    return 0;
}
