// A host linked against the installed library: every installed header, and a call into
// each, so that a declaration the library does not export fails to link here.
#include <audioblock.h>
#include <ffmpegapi.h>
#include <ffmpegplugin.h>
#include <ffmpegwriter.h>
#include <jpegsnapshot.h>
#include <kwrecorderexport.h>
#include <plugincomponent.h>
#include <recordingstatus.h>
#include <snapshotthread.h>
#include <watermark.h>

#include <cstdio>

int main()
{
    int failures = 0;
    const auto expect = [&](bool ok, const char *what) {
        if (!ok) {
            std::fprintf(stderr, "linkhost: %s\n", what);
            ++failures;
        }
    };
    expect(qobject_interface_iid<FFMPEGPlugin *>() == QByteArray("com.kw.ffmpegplugin"), "plugin id");
    expect(RecordingStatus{}.summary().contains(QLatin1String("idle")), "status summary");

    FFmpegApi writer;
    writer.setWriteMode(FFmpegApi::WriteMode::IndexAtEnd);
    expect(writer.writeMode() == FFmpegApi::WriteMode::IndexAtEnd, "writer mode");
    // Not opened: a block of sound goes nowhere and the sound's timeline stays at 0.
    AudioBlock block;
    expect(writer.write_audio(block) == 0 && writer.audioSamplesOut() == 0, "sound before open");

    stWaterprint w;
    w.text = QStringLiteral("host");
    w.bText = 1;
    expect(writer.getFiltersDescr(w).contains(QLatin1String("drawtext")), "watermark");

    // An empty picture is refused before any file is touched.
    expect(jpegsnapshot::withText(cv::Mat(), 1) < 0, "text snapshot");
    expect(FFmpegApi::SaveAsJPEG(cv::Mat(), 1) < 0, "SaveAsJPEG");
    expect(FilterThread::instance()->dropped() == 0, "snapshot thread");
    return failures == 0 ? 0 : 1;
}
