// The clipboard history's hot paths. So far: search over 1,019 titles of 1,000
// characters in each mode, and the RTF reader on hostile input.
#include "clipboard/ClipSearch.h"
#include "clipboard/RtfText.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QStringList>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace zuv;

namespace {

std::vector<QString> titles(int count)
{
    static const QStringList words{"build", "release", "config", "server", "error", "warning", "deploy", "branch",
                                   "merge", "commit", "docker", "kubectl", "ssh", "invoice", "meeting", "address",
                                   "password", "token", "https://example.org/path", "function", "return", "null"};
    QRandomGenerator random(7);
    std::vector<QString> out;
    for (int i = 0; i < count; ++i) {
        QString t;
        while (t.size() < 1000)
            t += words.at(int(random.bounded(words.size()))) + QLatin1Char(' ');
        out.push_back(t.left(1000));
    }
    return out;
}

double p50(const QString &mode, const QStringList &queries, const std::vector<QString> &all)
{
    std::vector<ClipSearch::Folded> foldedTitles;
    for (const QString &t : all)
        foldedTitles.push_back(ClipSearch::Folded::of(t));
    std::vector<qint64> costs;
    for (int round = 0; round < 20; ++round) {
        for (const QString &q : queries) {
            QElapsedTimer timer;
            timer.start();
            const auto found = ClipSearch::search(q, mode, all, foldedTitles);
            costs.push_back(timer.nsecsElapsed());
            if (found.size() > all.size())
                std::abort();
        }
    }
    std::sort(costs.begin(), costs.end());
    return double(costs[costs.size() / 2]) / 1000.0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    for (const auto &[name, rtf] : std::vector<std::pair<const char *, QByteArray>>{
             {"nested groups", QByteArray(50'000, '{') + QByteArray(50'000, '}')},
             {"unicode escapes", QByteArray("\\uc16\\u65").repeated(10'000)},
             {"long control words", QByteArray("\\abcdefghijklmnopqrstuvwxyzabcdef99999999999 ").repeated(2'000)}}) {
        QElapsedTimer timer;
        timer.start();
        const QString text = RtfText::plain(rtf.left(100 * 1024));
        std::printf("rtf worst: %s, %.2f ms (%lld characters)\n", name, double(timer.nsecsElapsed()) / 1e6,
                    qlonglong(text.size()));
    }
    const std::vector<QString> all = titles(1019);
    const QStringList queries{"deploy", "kubectl merge", "https", "invoice meeting", "tokn", "zzz", "Release"};
    std::printf("clip search: exact %.0f µs, fuzzy %.0f µs, regex %.0f µs, mixed %.0f µs (1,019 clips)\n",
                p50("exact", queries, all), p50("fuzzy", queries, all), p50("regex", QStringList{"dep.oy", "b[a-z]+h", "^ssh"}, all),
                p50("mixed", queries, all));
    return 0;
}
