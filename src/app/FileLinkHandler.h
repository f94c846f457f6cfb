#pragma once

#include "links/LinkResolver.h"

#include <QJsonObject>
#include <QStringList>

class MetadataIndex;
class QMimeData;

// The application's side of file links: files handed to it become links, link URLs are resolved through
// the metadata index and revealed. Lives on the main thread.
class FileLinkHandler
{
public:
    FileLinkHandler(const MetadataIndex &index, bool headless);

    // The links of the files, in path order; paths where no item exists are skipped without a message.
    static QStringList linksForFiles(const QStringList &paths);
    // Replaces the clipboard's content with the links; false (clipboard untouched) when there are none or
    // the process has no clipboard.
    static bool putOnClipboard(const QStringList &links);
    // What the clipboard holds for the links: one URL each, and their text a line each.
    static QMimeData *clipboardContent(const QStringList &links);
    // The link-scheme URL for a text given to `vandrel open`: a link-scheme URL as it is, or a link as
    // shared under the LinkService converted to that form. Nothing for any other text.
    static std::optional<QUrl> linkSchemeUrl(const QString &text);

    // Starts resolving a link-scheme URL (case-sensitive "qlk" prefix) and returns true at once; declines
    // any other URL.
    bool handleOpenURL(const QString &text);
    // Answers a command handed over by a later `vandrel`: "open" URLs, or "link" paths.
    QJsonObject answer(const QString &command, const QStringList &arguments);

    LinkResolver &resolver() { return m_resolver; }

private:
    LinkResolver m_resolver;
};
