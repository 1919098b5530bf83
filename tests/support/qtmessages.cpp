#include "qtmessages.h"

#include <QtGlobal>
#include <cstdio>
#include <vector>

namespace {

struct Message {
    QtMsgType type;
    QString category;
    QString text;
};

std::mutex g_mutex;            // guards g_messages and g_previous
std::vector<Message> g_messages; // messages since the collector was made
QtMessageHandler g_previous = nullptr;

void collect(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    QtMessageHandler previous;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_messages.push_back({type, QString::fromUtf8(context.category), message});
        previous = g_previous;
    }
    // Still shown, so a failing test's log tells the story.
    if (previous)
        previous(type, context, message);
}

} // namespace

QtMessageCollector::QtMessageCollector()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_messages.clear();
    g_previous = qInstallMessageHandler(collect);
}

QtMessageCollector::~QtMessageCollector()
{
    qInstallMessageHandler(g_previous);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_previous = nullptr;
}

QStringList QtMessageCollector::messages() const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    QStringList texts;
    for (const Message &m : g_messages)
        texts.append(m.text);
    return texts;
}

QStringList QtMessageCollector::messages(const QString &category, QtMsgType type) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    QStringList texts;
    for (const Message &m : g_messages) {
        if (m.category == category && m.type == type)
            texts.append(m.text);
    }
    return texts;
}

int QtMessageCollector::count(const QString &text) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    int n = 0;
    for (const Message &m : g_messages)
        n += m.text.contains(text) ? 1 : 0;
    return n;
}
