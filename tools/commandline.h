#ifndef COMMANDLINE_H
#define COMMANDLINE_H

#include <QCommandLineParser>
#include <QString>
#include <limits>
#include <utility>
#include <vector>

// Option parsing shared by the demo host and the benchmarks: Qt's QCommandLineParser with
// the conventional --help and --version, and value checks whose errors name the option.
// A bad command line ends the program with a message on standard error and
// kUsageExitCode; all of it runs on the main thread, after the QCoreApplication is made.
namespace commandline {

// Exit code for a command line that cannot be used (as the hand-written parsers had).
constexpr int kUsageExitCode = 2;
// Largest picture side accepted for a WxH value, in pixels.
constexpr int kMaxSide = 16384;

using Size = std::pair<int, int>; // width, height in pixels

// Sets the application's version, adds --help and --version to `parser` with
// `description`, and parses the application's arguments. --help and --version print and
// exit 0; an unknown option, a missing value or a stray argument is a usage error.
void parseOrExit(QCommandLineParser &parser, const QString &description);

// Prints "<program>: <message>" and a pointer to --help on standard error, then exits
// with kUsageExitCode.
[[noreturn]] void usageError(const QString &message);

// Each reader leaves `out` alone when the option was not given, and is a usage error
// naming the option when the value is not of the kind asked for or out of [min, max].
void readNumber(const QCommandLineParser &parser, const QString &name, double &out,
                double min, double max);
long long integerValue(const QCommandLineParser &parser, const QString &name, long long min,
                       long long max);
template <typename T>
void readInteger(const QCommandLineParser &parser, const QString &name, T &out,
                 long long min, long long max = std::numeric_limits<T>::max())
{
    if (parser.isSet(name))
        out = static_cast<T>(integerValue(parser, name, min, max));
}
// "WxH", each side from 1 to kMaxSide.
void readSize(const QCommandLineParser &parser, const QString &name, Size &out);
// "WxH,WxH,...": at least one.
void readSizes(const QCommandLineParser &parser, const QString &name, std::vector<Size> &out);
// One of `choices`.
void readChoice(const QCommandLineParser &parser, const QString &name, QString &out,
                const QStringList &choices);

} // namespace commandline

#endif // COMMANDLINE_H
