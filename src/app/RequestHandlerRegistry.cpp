#include "app/RequestHandlerRegistry.h"

#include "engine/vd_Searcher.h"
#include "handlers/ItemInfoHandler.h"
#include "handlers/SearchHandler.h"
#include "handlers/ThumbnailHandler.h"
#include "handlers/TransferHandler.h"

void registerRequestHandlers()
{
    using Slot = vd_Searcher::HandlerSlot;
    // The picture goes both into the record and, for an encrypted reply, out as the raw bytes.
    const auto picture = [](void (*handler)(QJsonObject &, QByteArray *)) {
        return [handler](vd_Searcher &operation, QJsonObject &request) {
            QByteArray raw;
            handler(request, &raw);
            if (!raw.isEmpty())
                operation.setOutRawData(raw);
        };
    };
    vd_Searcher::registerHandler(Slot::Search, [](vd_Searcher &, QJsonObject &request) {
        SearchHandler::handleSearchRequest(request);
    });
    vd_Searcher::registerHandler(Slot::Thumb, picture(&ThumbnailHandler::handleThumbRequest));
    vd_Searcher::registerHandler(Slot::Preview, picture(&ThumbnailHandler::handlePreviewRequest));
    vd_Searcher::registerHandler(Slot::CopyToDropbox, [](vd_Searcher &, QJsonObject &request) {
        TransferHandler::handleCopyToDropboxRequest(request);
    });
    vd_Searcher::registerHandler(Slot::MoveFromDropbox, [](vd_Searcher &, QJsonObject &request) {
        TransferHandler::handleMoveFromDropboxRequest(request);
    });
    vd_Searcher::registerHandler(Slot::ItemInfo, [](vd_Searcher &, QJsonObject &request) {
        ItemInfoHandler::handleItemInfoRequest(request);
    });
}
