#pragma once

#include <QObject>

class QWidget;

// Files dropped on the agent's window become file links on the clipboard, by the rules of `vandrel link`:
// in drop order, vanished ones skipped, the clipboard left alone when no link is left.
class LinkDropTarget : public QObject
{
    Q_OBJECT
public:
    // Makes `window` take drops of local files; lives as long as the window.
    explicit LinkDropTarget(QWidget *window);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
};
