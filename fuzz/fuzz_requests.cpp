// Feeds arbitrary relay reply bodies and arbitrary request records through the request engine: the reply
// parse and queueing (envelopes opened included), and one operation's main with its password checks,
// dispatch and result form. Handlers are stand-ins that write into the record, as real ones do. The home
// is a temporary one with a StorageRoot holding the session "s1", so records naming it get all the way
// to the post; no relay address is set, so nothing leaves the process.
#include "engine/RelayForm.h"
#include "engine/vd_Searcher.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QTemporaryDir>

namespace {

void setUp()
{
    static QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral(".config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath(QStringLiteral(".local/share"))));
    qputenv("VANDREL_KEYCHAIN", "file");
    qunsetenv("VANDREL_RELAY_URL");
    const QString data = home.filePath(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata"));
    QDir().mkpath(data + QStringLiteral("/sessions"));
    for (const QString &name :
         {QStringLiteral("/sessions_are_here.json"), QStringLiteral("/sessions/s1.json")}) {
        QFile file(data + name);
        if (file.open(QIODevice::WriteOnly))
            file.write("{}");
    }
    QLoggingCategory::setFilterRules(QStringLiteral("vd.*=false"));
    vd_Searcher::HandlerTable handlers;
    for (const char *type : {"search", "preview", "thumb", "copy_to_dropbox", "move_from_dropbox", "info"})
        handlers[QString::fromLatin1(type)] = [](vd_Searcher &operation, QJsonObject &request) {
            request.insert(QStringLiteral("handled"), request.size());
            operation.setOutRawData(request.value(QStringLiteral("path")).toString().toUtf8());
        };
    vd_Searcher::setHandlers(std::move(handlers));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = (setUp(), true);
    (void)ready;
    if (size == 0)
        return 0;
    const QByteArray body =
        QByteArray::fromRawData(reinterpret_cast<const char *>(data) + 1, qsizetype(size - 1));
    if (data[0] & 1) {
        vd_Searcher::runRequestsFromReply(body);
        vd_Searcher::opQ().waitForDone();
        return 0;
    }
    const QJsonDocument document = QJsonDocument::fromJson(body);
    if (!document.isObject())
        return 0;
    QJsonObject record = document.object();
    record.insert(QStringLiteral("os_session"), QStringLiteral("s1"));
    vd_Searcher operation(record);
    operation.decryptRequest();
    operation.main();
    const RelayForm form = RelayForm::build(operation.theRequest().value_or(record), {QStringLiteral("s1")},
                                            QStringLiteral("cid"), [] { return QStringLiteral("x"); });
    (void)form.fields.size();
    return 0;
}
