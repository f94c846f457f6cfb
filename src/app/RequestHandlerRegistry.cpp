#include "app/RequestHandlerRegistry.h"

#include "engine/vd_Searcher.h"
#include "handlers/ItemInfoHandler.h"
#include "handlers/SearchHandler.h"
#include "handlers/ThumbnailHandler.h"
#include "handlers/TransferHandler.h"

namespace {

// The picture goes both into the record and, for an encrypted reply, out as the raw bytes.
vd_Searcher::Handler picture(void (*handler)(QJsonObject &, QByteArray *))
{
    return [handler](vd_Searcher &operation, QJsonObject &request) {
        QByteArray raw;
        handler(request, &raw);
        if (!raw.isEmpty())
            operation.setOutRawData(raw);
    };
}

} // namespace

void registerRequestHandlers()
{
    vd_Searcher::setHandlers({
        {QStringLiteral("search"),
         [](vd_Searcher &, QJsonObject &request) { SearchHandler::handleSearchRequest(request); }},
        {QStringLiteral("preview"), picture(&ThumbnailHandler::handlePreviewRequest)},
        {QStringLiteral("thumb"), picture(&ThumbnailHandler::handleThumbRequest)},
        {QStringLiteral("copy_to_dropbox"),
         [](vd_Searcher &, QJsonObject &request) { TransferHandler::handleCopyToDropboxRequest(request); }},
        {QStringLiteral("move_from_dropbox"),
         [](vd_Searcher &, QJsonObject &request) { TransferHandler::handleMoveFromDropboxRequest(request); }},
        {QStringLiteral("info"),
         [](vd_Searcher &, QJsonObject &request) { ItemInfoHandler::handleItemInfoRequest(request); }},
    });
}
