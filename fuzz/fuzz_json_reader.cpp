// Feeds arbitrary bytes to the tolerant JSON reader that reads every file of a StorageRoot (session files,
// markers, computer files, the cloud client's account file). It must never crash; it answers an object.
#include "utils/vd_FileUtils.h"

#include <QLoggingCategory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool quiet = [] {
        QLoggingCategory::setFilterRules(QStringLiteral("vd.*=false"));
        return true;
    }();
    (void)quiet;
    const QJsonObject object = vd_FileUtils::jsonObjectFromBytes(
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size)));
    (void)object.size();
    return 0;
}
