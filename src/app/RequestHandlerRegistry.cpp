#include "app/RequestHandlerRegistry.h"

#include "engine/vd_Searcher.h"
#include "handlers/ItemInfoHandler.h"
#include "handlers/TransferHandler.h"

void registerRequestHandlers()
{
    using Slot = vd_Searcher::HandlerSlot;
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
