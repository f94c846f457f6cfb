#pragma once

#include <QWidget>

#include <functional>

class QLineEdit;
class QPushButton;

// The preferences window of vd_PreferencesController: the computer password field and a button that opens
// the WebApp. There is no save button: the field is saved whenever editing ends, whenever the window stops
// being the active one and when it closes, even when nothing changed, through the same
// vd_PreferencesController::setPassword as `vandrel password`. An empty field clears the password.
class PreferencesWindow : public QWidget
{
    Q_OBJECT
public:
    // `openWebApp` opens the WebApp's page (the application's browser opener).
    explicit PreferencesWindow(std::function<void()> openWebApp, QWidget *parent = nullptr);
    // Closes (and so saves) a window still open.
    ~PreferencesWindow() override;

    QLineEdit *passwordField() const { return m_passwordField; }

protected:
    void changeEvent(QEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void save();

    QLineEdit *m_passwordField;
    QPushButton *m_webAppButton;
};
