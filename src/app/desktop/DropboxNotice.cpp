#include "app/desktop/DropboxNotice.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

DropboxNotice::DropboxNotice(QWidget *parent)
    : QWidget(parent, Qt::Tool | Qt::WindowStaysOnTopHint)
{
    setObjectName(QStringLiteral("dropboxNotice"));
    setWindowTitle(tr("Dropbox is not running"));
    auto *text = new QLabel(tr("<b>Dropbox is not running.</b><br>Vandrel reaches the web app through your "
                               "Dropbox folder: start Dropbox so that requests and uploads arrive."),
                            this);
    text->setWordWrap(true);
    auto *button = new QPushButton(tr("OK"), this);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(text);
    layout->addWidget(button, 0, Qt::AlignRight);
    connect(button, &QPushButton::clicked, this, &QWidget::hide);
    setFixedWidth(380);
}
