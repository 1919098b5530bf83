#ifndef QTMESSAGES_H
#define QTMESSAGES_H

#include <QString>
#include <QStringList>
#include <QtGlobal>
#include <mutex>

// Collects every Qt debug/warning message of the process while it lives (any thread),
// so tests can assert on the lines a user would read. One at a time.
class QtMessageCollector
{
public:
    QtMessageCollector();
    ~QtMessageCollector();
    QtMessageCollector(const QtMessageCollector &) = delete;
    QtMessageCollector &operator=(const QtMessageCollector &) = delete;

    QStringList messages() const;
    // The messages of one logging category and type.
    QStringList messages(const QString &category, QtMsgType type) const;
    // Number of messages that contain `text`.
    int count(const QString &text) const;
};

#endif // QTMESSAGES_H
