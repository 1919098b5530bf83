#include "qtmessages.h"

#include <QtGlobal>
#include <cstdio>

namespace {

std::mutex g_mutex;            // guards g_messages and g_previous
QStringList g_messages;        // messages since the collector was made
QtMessageHandler g_previous = nullptr;

void collect(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    QtMessageHandler previous;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_messages.append(message);
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
    return g_messages;
}

int QtMessageCollector::count(const QString &text) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    int n = 0;
    for (const QString &m : g_messages)
        n += m.contains(text) ? 1 : 0;
    return n;
}
