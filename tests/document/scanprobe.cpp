// A helper for the scanner tests: runs the document scanner on one file and
// prints what it found. It is started inside the sandbox, so the font
// catalogue and the font files it compares come from a fixture tree.
//
//   scanprobe DOCUMENT STYLES [safe]
//
// STYLES is a comma-separated list of marker font style ids (for example
// "0,1"); the required fonts are those of these styles. "safe" turns on the
// print-safe corrections (MarkerSafeOutput=1). Output, one line each:
//   result=<0|1>            whether scanDocument found page ends
//   prolog=<n>              DocumentModel::prologLine
//   firstPage=<n>           DocumentModel::firstPageLine
//   pageEnds=<a,b,...>      DocumentModel::pageEndLines
//   atEnd=<0|1>             whether the input was left at its end
//   required=<names>        Fonts::requiredFonts()
//   embedded=<names>        fonts the resource writer embeds afterwards
//   findfont=<names>        base fonts the re-encoded marker fonts are built from
#include "document/quillet.h"
#include "fonts/fonts.h"
#include "settings/variables.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QFile>
#include <QSet>
#include <QStringList>

#include <cstdio>

namespace {

void print(const QByteArray& line)
{
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 3 && !(arguments.size() == 4 && arguments.at(3) == QLatin1String("safe"))) {
        std::fprintf(stderr, "usage: scanprobe DOCUMENT STYLES [safe]\n");
        return 2;
    }
    if (arguments.size() == 4)
        Variables::instance().insert(QStringLiteral("MarkerSafeOutput"), QStringLiteral("1"));

    QSet<int> styles;
    for (const QString& style : arguments.at(2).split(QLatin1Char(','), Qt::SkipEmptyParts))
        styles.insert(style.toInt());
    Fonts& fonts = Fonts::instance();
    fonts.initialize(QStringLiteral("utf-8"));
    fonts.setMarkerStyles(styles);

    QFile document(arguments.at(1));
    if (!document.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "scanprobe: cannot open the document\n");
        return 2;
    }
    DocumentModel model;
    model.prologLine = 99;
    model.firstPageLine = 99;
    model.pageEndLines = {99};
    const Status status = Quillet().scanDocument(document, model);
    if (!status.ok()) {
        std::fprintf(stderr, "%s\n", qPrintable(status.message()));
        return 1;
    }
    const bool result = !model.pageEndLines.isEmpty();

    QByteArrayList pageEnds;
    for (qint64 end : qAsConst(model.pageEndLines))
        pageEnds.append(QByteArray::number(end));
    print("result=" + QByteArray::number(result ? 1 : 0));
    print("prolog=" + QByteArray::number(model.prologLine));
    print("firstPage=" + QByteArray::number(model.firstPageLine));
    print("pageEnds=" + pageEnds.join(','));
    print("atEnd=" + QByteArray::number(document.atEnd() ? 1 : 0));
    print("required=" + fonts.requiredFonts().join(QLatin1Char(',')).toLocal8Bit());

    // What the scan told the catalogue shows in the resources written next.
    QByteArray resources;
    QBuffer buffer(&resources);
    buffer.open(QIODevice::WriteOnly);
    fonts.writeFontResources(buffer);
    buffer.close();
    QByteArrayList embedded;
    QByteArrayList findfont;
    for (const QByteArray& line : resources.split('\n')) {
        if (line.startsWith("%%BeginResource: font "))
            embedded.append(line.mid(int(qstrlen("%%BeginResource: font "))));
        else if (line.startsWith('/') && line.endsWith(" findfont"))
            findfont.append(line.mid(1, line.size() - 1 - int(qstrlen(" findfont"))));
    }
    print("embedded=" + embedded.join(','));
    print("findfont=" + findfont.join(','));
    std::fflush(stdout);
    return 0;
}
