#pragma once

#include <QWidget>

// The small panel that tells the user Dropbox is not running. It stays above other windows, also while
// the agent is not the active application, and hides itself when its button is pressed.
class DropboxNotice : public QWidget
{
    Q_OBJECT
public:
    explicit DropboxNotice(QWidget *parent = nullptr);
};
