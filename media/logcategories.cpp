#include "logcategories.h"

namespace {

// Never destroyed: a thread writing at process exit may still log.
const QLoggingCategory &keep(const char *name)
{
    return *new QLoggingCategory(name, QtInfoMsg);
}

} // namespace

const QLoggingCategory &lcMedia()
{
    static const QLoggingCategory &category = keep("kwrecorder.media");
    return category;
}

const QLoggingCategory &lcEncode()
{
    static const QLoggingCategory &category = keep("kwrecorder.encode");
    return category;
}

const QLoggingCategory &lcPlugin()
{
    static const QLoggingCategory &category = keep("kwrecorder.plugin");
    return category;
}

const QLoggingCategory &lcAudio()
{
    static const QLoggingCategory &category = keep("kwrecorder.audio");
    return category;
}
