#include "voice/Speaker.h"

#include "base/Log.h"
#include "platform/LanguageDetector.h"
#include "platform/Synthesizer.h"

#include <QPointer>
#include <QRegularExpression>
#include <QCoro/QCoroSignal>

namespace zuv {

namespace {
Speaker *g_shared = nullptr;
}

Speaker &Narrator::shared()
{
    Q_ASSERT(g_shared);
    return *g_shared;
}

void Narrator::setShared(Speaker *speaker) { g_shared = speaker; }

Speaker::Speaker(Synthesizer &synthesizer, const LanguageDetector &detector, QObject *parent)
    : QObject(parent), m_synth(synthesizer), m_detector(detector)
{
    connect(&m_synth, &Synthesizer::finished, this, &Speaker::finish);
}

QString Speaker::plain(const QString &text)
{
    using R = QRegularExpression;
    // Unicode properties on: \s and \S must know the ideographic and the no-break
    // space, or a link swallows the rest of a Japanese or French sentence.
    constexpr auto u = R::UseUnicodePropertiesOption;
    constexpr auto m = R::MultilineOption | R::UseUnicodePropertiesOption;
    static const std::pair<R, QString> steps[] = {
        {R(QStringLiteral("```[\\s\\S]*?```"), u), QStringLiteral(" (code) ")},
        {R(QStringLiteral("!\\[[^\\]]*\\]\\([^)]*\\)"), u), QString()},
        {R(QStringLiteral("\\[([^\\]]+)\\]\\([^)]*\\)"), u), QStringLiteral("\\1")},
        {R(QStringLiteral("https?://\\S+"), u), QString()},
        {R(QStringLiteral("^\\s*\\|?\\s*:?-{2,}.*$"), m), QString()},
        {R(QStringLiteral("^#{1,6}\\s*"), m), QString()},
        {R(QStringLiteral("^\\s*>\\s?"), m), QString()},
        {R(QStringLiteral("^\\s*[-*+]\\s+"), m), QString()},
        {R(QStringLiteral("[*_`~|]"), u), QString()},
        {R(QStringLiteral("\\n{2,}"), u), QStringLiteral("\n")},
    };
    QString s = text;
    for (const auto &[pattern, replacement] : steps)
        s.replace(pattern, replacement);
    return s.trimmed();
}

QString Speaker::language(const QString &text) const
{
    using L = LanguageDetector::Language;
    switch (m_detector.dominant(text)) {
    case L::simplifiedChinese: return QStringLiteral("zh-CN");
    case L::traditionalChinese: return QStringLiteral("zh-TW");
    case L::japanese: return QStringLiteral("ja-JP");
    case L::dutch: return QStringLiteral("nl-NL");
    case L::german: return QStringLiteral("de-DE");
    case L::french: return QStringLiteral("fr-FR");
    case L::spanish: return QStringLiteral("es-ES");
    default: return QStringLiteral("en-US");
    }
}

void Speaker::finish()
{
    if (!m_waiting)
        return;
    m_waiting = false;
    emit finished(m_reading);
}

QCoro::Task<void> Speaker::speak(QString text)
{
    if (m_waiting) {
        m_synth.stop();
        finish();
    }
    const QString spoken = plain(text);
    if (spoken.isEmpty())
        co_return;
    if (!m_synth.available()) {
        if (!m_told) {
            m_told = true;
            log(QStringLiteral("Read aloud is not available: ") + m_synth.problem());
        }
        co_return;
    }
    const quint64 reading = ++m_reading;
    m_waiting = true;
    QPointer<Speaker> self(this);
    m_synth.say(spoken, language(spoken), rate);
    while (self && m_waiting && m_reading == reading) {
        auto ended = qCoro(this, &Speaker::finished);
        co_await ended;
    }
}

} // namespace zuv
