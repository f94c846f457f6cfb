#include "app/desktop/PreferencesWindow.h"

#include "app/vd_PreferencesController.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QCloseEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

PreferencesWindow::PreferencesWindow(std::function<void()> openWebApp, QWidget *parent)
    : QWidget(parent, Qt::Window)
    , m_passwordField(new QLineEdit(this))
    , m_webAppButton(new QPushButton(tr("Open Vandrel Web App"), this))
{
    setWindowTitle(tr("Vandrel Preferences"));
    setObjectName(QStringLiteral("preferencesWindow"));
    m_passwordField->setObjectName(QStringLiteral("passwordField"));
    m_passwordField->setEchoMode(QLineEdit::Password);
    m_passwordField->setPlaceholderText(
        tr("No password: anyone with your web app login can reach this computer"));
    m_passwordField->setMinimumWidth(360);

    auto *title = new QLabel(tr("<b>Computer password</b>"), this);
    auto *explanation = new QLabel(tr("The web app asks for this password before it shows this computer's "
                                      "files. Changes are saved as you leave the field or close this window; "
                                      "leave it empty to remove the password."),
                                   this);
    explanation->setWordWrap(true);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(title);
    layout->addWidget(m_passwordField);
    layout->addWidget(explanation);
    layout->addSpacing(8);
    layout->addWidget(m_webAppButton, 0, Qt::AlignLeft);

    connect(m_passwordField, &QLineEdit::editingFinished, this, &PreferencesWindow::save);
    connect(m_webAppButton, &QPushButton::clicked, this, std::move(openWebApp));

    if (const QString stored =
            ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()).value_or(QString());
        !stored.isEmpty())
        m_passwordField->setText(stored);
}

PreferencesWindow::~PreferencesWindow()
{
    // Here, while this is still a whole preferences window: the base class would close it later, and the
    // field's end of editing would then reach a save on an object half torn down.
    if (isVisible())
        close();
}

void PreferencesWindow::save()
{
    vd_PreferencesController::setPassword(m_passwordField->text());
}

void PreferencesWindow::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::ActivationChange && !isActiveWindow() && isVisible())
        save();
    QWidget::changeEvent(event);
}

void PreferencesWindow::closeEvent(QCloseEvent *event)
{
    save();
    event->accept();
}
