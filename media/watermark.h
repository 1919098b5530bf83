#ifndef WATERMARK_H
#define WATERMARK_H

#include <QString>

// A text / local time / logo watermark, as FFmpegApi::getFiltersDescr draws it.
struct stWaterprint {
    QString text;
    QString fontFile;
    int fontSize = 0;
    int x = 0;
    int y = 0;
    int fontColor = 0;   // 0xRRGGBB
    int bLocalTime = 0;  // 1: the local time is drawn before the text
    int bText = 0;       // 1: draw the text
    QString logoFile;
    int logoX = 0;
    int logoY = 0;
    int bLogo = 0;       // 1: overlay the logo
};

#endif // WATERMARK_H
