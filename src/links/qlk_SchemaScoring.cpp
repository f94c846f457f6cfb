#include "links/qlk_Schema.h"
#include "support/vd_Checksum.h"

#include <QFileInfo>

QString qlk_Schema::currentQueryString(const QString &fileName)
{
    if (fileName.isEmpty())
        return {};
    return QStringLiteral("( kMDItemFSName == \"%1\" )").arg(fileName);
}

LinkCandidate qlk_Schema::fileInfoDict(const QString &path, const LinkDescription &description)
{
    LinkCandidate candidate;
    candidate.path = path;
    candidate.url = QUrl::fromLocalFile(path);
    const QFileInfo info(path);
    if (info.exists()) {
        candidate.modDate = info.lastModified();
        candidate.dir = info.isDir();
        if (!info.isDir())
            candidate.size = info.size();
    }
    candidate.display = info.fileName();
    addScore(candidate, description);
    return candidate;
}

void qlk_Schema::addScore(LinkCandidate &candidate, const LinkDescription &description)
{
    const QStringList components = pathComponents(candidate.path);
    const qsizetype n = components.size();
    const int name = components.last() == description.fileName ? kNameScore : 0;
    if (description.dir != candidate.dir.value_or(false)) {
        // No ancestor points for an item of the other kind: a same-named folder is not the file.
        candidate.score = name;
        return;
    }

    int score = name;
    if (description.dir) {
        if (countFilesUnderFolder(candidate.path) == description.numFiles)
            score += kEntryCountScore;
    } else if (candidate.size.value_or(0) == description.size) {
        // Only a file of the right size is worth reading whole.
        score += vd_Checksum::crc32(candidate.path) == description.crc32 ? kChecksumScore
                                                                         : kSameSizeOtherChecksumScore;
    }
    if (n >= 2 && components[n - 2] == description.parent)
        score += kAncestorScore;
    if (n >= 3 && components[n - 3] == description.grandParent)
        score += kAncestorScore;
    if (n >= 4 && components[n - 4] == description.greatGrandParent)
        score += kAncestorScore;
    candidate.score = score;
}
