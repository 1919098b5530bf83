#include "qtmessages.h"

#include <mutex>
#include <vector>

namespace {

struct Message {
    QtMsgType type;
    QString category;
    QString text;
};

std::mutex g_mutex;              // guards g_messages and g_previous
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
    if (previous) // a failing test's log still tells the story
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

QStringList QtMessageCollector::messages(const QString &category, QtMsgType type) const
{
    std::lock_guard<std::mutex> lock(g_mutex);
    QStringList texts;
    for (const Message &m : g_messages) {
        if (category.isEmpty() || (m.category == category && m.type == type))
            texts.append(m.text);
    }
    return texts;
}

int QtMessageCollector::count(const QString &text) const
{
    return messages().filter(text).size();
}
