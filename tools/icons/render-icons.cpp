// Renders the app's SVG icon into the PNG sizes of the hicolor theme, at build time.
#include <QGuiApplication>
#include <QDir>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

#include <cstdio>

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: zuv-render-icons <icon.svg> <hicolor folder>\n");
        return 2;
    }
    QSvgRenderer svg(QString::fromLocal8Bit(argv[1]));
    if (!svg.isValid()) {
        std::fprintf(stderr, "zuv-render-icons: %s is not a valid SVG\n", argv[1]);
        return 1;
    }
    const QString root = QString::fromLocal8Bit(argv[2]);
    for (int size : {16, 22, 24, 32, 48, 64, 128, 256, 512}) {
        const QString folder = QStringLiteral("%1/%2x%2/apps").arg(root).arg(size);
        QDir().mkpath(folder);
        QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        svg.render(&painter);
        painter.end();
        if (!image.save(folder + QStringLiteral("/com.kelmor.zuv.mac.png"))) {
            std::fprintf(stderr, "zuv-render-icons: cannot write into %s\n", qPrintable(folder));
            return 1;
        }
    }
    return 0;
}
