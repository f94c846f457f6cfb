#include "relay/RandomToken.h"

#include "relay/RelayLog.h"
#include "support/Encodings.h"

#include <QByteArray>

#include <openssl/rand.h>

#include <cstdlib>

QString randomToken(int bytes)
{
    QByteArray data(bytes, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char *>(data.data()), bytes) != 1) {
        qCCritical(lcRelay).noquote() << "the secure random generator failed; stopping";
        std::abort();
    }
    QString text = base64Encoding_URL_SAFE(data);
    while (text.endsWith(u'='))
        text.chop(1);
    return text;
}
