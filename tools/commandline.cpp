#include "commandline.h"

#include <QCoreApplication>
#include <QStringList>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace commandline {

namespace {

QString dashed(const QString &name)
{
    return (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
}

[[noreturn]] void badValue(const QCommandLineParser &parser, const QString &name,
                           const QString &expected)
{
    usageError(QStringLiteral("%1: '%2' is not %3")
                   .arg(dashed(name), parser.value(name), expected));
}

// false when `text` is not "WxH" with both sides in range.
bool parseSize(const QString &text, Size &out)
{
    const QStringList wh = text.split(QLatin1Char('x'));
    if (wh.size() != 2)
        return false;
    bool okW = false, okH = false;
    const int w = wh[0].toInt(&okW);
    const int h = wh[1].toInt(&okH);
    if (!okW || !okH || w < 1 || h < 1 || w > kMaxSide || h > kMaxSide)
        return false;
    out = {w, h};
    return true;
}

QString sizeExpected()
{
    return QStringLiteral("WIDTHxHEIGHT (each from 1 to %1)").arg(kMaxSide);
}

} // namespace

void usageError(const QString &message)
{
    const QString program = QCoreApplication::applicationName();
    std::fprintf(stderr, "%s: %s\nTry '%s --help' for the options.\n", qPrintable(program),
                 qPrintable(message), qPrintable(program));
    std::exit(kUsageExitCode);
}

void parseOrExit(QCommandLineParser &parser, const QString &description)
{
    QCoreApplication::setApplicationVersion(QStringLiteral(RECORDER_VERSION));
    parser.setApplicationDescription(description);
    parser.addHelpOption();
    parser.addVersionOption();
    if (!parser.parse(QCoreApplication::arguments()))
        usageError(parser.errorText());
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(0);
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
    if (!parser.positionalArguments().isEmpty())
        usageError(QStringLiteral("unexpected argument '%1'")
                       .arg(parser.positionalArguments().constFirst()));
}

void readNumber(const QCommandLineParser &parser, const QString &name, double &out, double min,
                double max)
{
    if (!parser.isSet(name))
        return;
    bool ok = false;
    const double v = parser.value(name).toDouble(&ok);
    if (!ok || !std::isfinite(v) || v < min || v > max)
        badValue(parser, name, QStringLiteral("a number from %1 to %2").arg(min).arg(max));
    out = v;
}

long long integerValue(const QCommandLineParser &parser, const QString &name, long long min,
                       long long max)
{
    bool ok = false;
    const long long v = parser.value(name).toLongLong(&ok);
    if (!ok || v < min || v > max)
        badValue(parser, name, QStringLiteral("a whole number from %1 to %2").arg(min).arg(max));
    return v;
}

void readSize(const QCommandLineParser &parser, const QString &name, Size &out)
{
    if (parser.isSet(name) && !parseSize(parser.value(name), out))
        badValue(parser, name, sizeExpected());
}

void readSizes(const QCommandLineParser &parser, const QString &name, std::vector<Size> &out)
{
    if (!parser.isSet(name))
        return;
    std::vector<Size> sizes;
    for (const QString &s : parser.value(name).split(QLatin1Char(','))) {
        Size size;
        if (!parseSize(s, size))
            badValue(parser, name, QStringLiteral("a list of ") + sizeExpected());
        sizes.push_back(size);
    }
    out = sizes;
}

void readChoice(const QCommandLineParser &parser, const QString &name, QString &out,
                const QStringList &choices)
{
    if (!parser.isSet(name))
        return;
    if (!choices.contains(parser.value(name)))
        badValue(parser, name, QStringLiteral("one of ") + choices.join(QStringLiteral(", ")));
    out = parser.value(name);
}

} // namespace commandline
