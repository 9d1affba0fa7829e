// The clipboard panel with 1,000 clips, offscreen: from the open request to
// the first frame painted, and from a keystroke to the filtered list painted.
// With "--screenshot FILE" it also saves a picture of the panel with a few clips.
#include "base/Clock.h"
#include "base/Defaults.h"
#include "clipboard/ClipRules.h"
#include "clipboard/ClipboardHistory.h"
#include "clipboard/ClipboardPanel.h"
#include "clipboard/views/ClipWindow.h"
#include "FakePasteboard.h"
#include "FakeWorkspace.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QKeyEvent>
#include <QLineEdit>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace zuv;

namespace {

struct Bench {
    QTemporaryDir home;
    TestClock clock;
    Defaults defaults{home.filePath("defaults.json")};
    test::FakePasteboard pasteboard;
    test::FakeWorkspace workspace;
    ClipboardHistory history{clock, defaults, pasteboard, workspace, nullptr, home.filePath("Zuv")};
    ClipboardPanel panel{clock, defaults, history};
    ClipWindow window{panel, history, defaults, workspace};

    Bench()
    {
        defaults.set("clip-size", 1000);
        history.setEnabled(true);
        panel.window = &window;
        panel.desktop = [] { return PanelDesktop{{400, 200}, {QRect(0, 0, 1920, 1080)}, std::nullopt}; };
    }
    void add(const QString &text)
    {
        clock.advance(1);
        history.record({{ClipRules::plainText, text.toUtf8()}}, std::nullopt, clock.now());
    }
};

double median(std::vector<qint64> v)
{
    std::sort(v.begin(), v.end());
    return double(v[v.size() / 2]) / 1e6;
}

void type(QLineEdit *field, QChar c)
{
    QKeyEvent press(QEvent::KeyPress, 0, Qt::NoModifier, QString(c));
    QApplication::sendEvent(field, &press);
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    QString screenshot;
    for (int i = 1; i + 1 < argc; ++i)
        if (QByteArray(argv[i]) == "--screenshot")
            screenshot = QString::fromLocal8Bit(argv[i + 1]);

    if (!screenshot.isEmpty()) {
        Bench shot;
        for (const char *t : {"https://example.org/docs/clipboard", "#3d7eff", "git rebase -i HEAD~3",
                              "Meeting notes: ship the Linux build on Friday", "SELECT * FROM clips WHERE pin IS NOT NULL;",
                              "  indented line\twith a tab", "kubectl get pods -n staging", "Invoice 2026-118, 420.00 EUR"})
            shot.add(QString::fromUtf8(t));
        shot.history.togglePin(shot.history.clips()[3].id);
        shot.panel.show();
        shot.panel.setQuery(QStringLiteral("i"));
        shot.panel.setQuery(QString());
        QApplication::processEvents();
        shot.window.grab().save(screenshot);
        std::printf("screenshot: %s\n", qPrintable(screenshot));
    }

    Bench b;
    QRandomGenerator random(9);
    static const QStringList words{"build", "release", "config", "server", "error", "deploy", "branch", "merge",
                                   "docker", "kubectl", "invoice", "meeting", "token", "function", "return"};
    for (int i = 0; i < 1000; ++i) {
        QString t;
        while (t.size() < 200)
            t += words.at(int(random.bounded(words.size()))) + QLatin1Char(' ');
        b.add(t + QString::number(i));
    }
    std::vector<qint64> opens;
    std::vector<qint64> keystrokes;
    for (int round = 0; round < 15; ++round) {
        QElapsedTimer timer;
        timer.start();
        b.panel.show();
        b.window.repaint();
        opens.push_back(timer.nsecsElapsed());
        for (const QChar c : QStringLiteral("deploy")) {
            QElapsedTimer key;
            key.start();
            type(b.window.searchField(), c);
            b.window.repaint();
            keystrokes.push_back(key.nsecsElapsed());
        }
        b.panel.close();
        QApplication::processEvents();
    }
    std::printf("panel: open %.1f ms, keystroke %.1f ms (1,000 clips)\n", median(opens), median(keystrokes));
    return 0;
}
