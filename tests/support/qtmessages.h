#ifndef QTMESSAGES_H
#define QTMESSAGES_H

#include <QString>
#include <QStringList>
#include <QtGlobal>

// Collects every Qt message of the process while it lives (any thread), so tests can
// assert on the lines a user would read. One at a time; the messages are still shown.
class QtMessageCollector
{
public:
    QtMessageCollector();
    ~QtMessageCollector();
    QtMessageCollector(const QtMessageCollector &) = delete;
    QtMessageCollector &operator=(const QtMessageCollector &) = delete;

    // The messages of one logging category and type; all of them without a category.
    QStringList messages(const QString &category = QString(), QtMsgType type = QtDebugMsg) const;
    // Number of messages that contain `text`.
    int count(const QString &text) const;
};

#endif // QTMESSAGES_H
