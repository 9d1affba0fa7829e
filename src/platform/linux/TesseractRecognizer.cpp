#include "platform/linux/TesseractRecognizer.h"

#include <QProcess>
#include <QCoro/QCoroSignal>

#include <utility>

namespace zuv {

namespace {

const std::pair<const char *, const char *> names[] = {
    {"eng", "en-US"},   {"chi_sim", "zh-Hans"}, {"chi_tra", "zh-Hant"}, {"jpn", "ja-JP"},  {"kor", "ko-KR"},
    {"deu", "de-DE"},   {"fra", "fr-FR"},       {"spa", "es-ES"},       {"ita", "it-IT"},  {"por", "pt-BR"},
    {"nld", "nl-NL"},   {"rus", "ru-RU"},       {"ukr", "uk-UA"},       {"pol", "pl-PL"},  {"ces", "cs-CZ"},
    {"swe", "sv-SE"},   {"dan", "da-DK"},       {"nor", "nb-NO"},       {"fin", "fi-FI"},  {"tur", "tr-TR"},
    {"ell", "el-GR"},   {"heb", "he-IL"},       {"ara", "ar-SA"},       {"hin", "hi-IN"},  {"tha", "th-TH"},
    {"vie", "vi-VN"},   {"ind", "id-ID"},       {"hun", "hu-HU"},       {"ron", "ro-RO"},  {"cat", "ca-ES"},
};

void prepare(QProcess &process, const QString &helper, const QStringList &arguments)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("OMP_THREAD_LIMIT"), QStringLiteral("1"));
    process.setProcessEnvironment(env);
    process.setProgram(helper);
    process.setArguments(arguments);
}

// Starts the process; whether it runs. Only the fork and exec are waited for,
// which the system answers at once, also for a program that cannot be run.
bool started(QProcess *process)
{
    process->start();
    return process->waitForStarted(5000);
}

// Whether the process ended within `ms`. One that has already ended counts:
// the signal is not waited for then, and nothing can end it between the check
// and the wait, as both run on this thread.
QCoro::Task<bool> finishedWithin(QProcess *process, int ms)
{
    if (process->state() == QProcess::NotRunning)
        co_return true;
    const auto ended = co_await qCoro(process, &QProcess::finished, std::chrono::milliseconds(ms));
    co_return ended.has_value() || process->state() == QProcess::NotRunning;
}

} // namespace

TesseractRecognizer::TesseractRecognizer(QString helper, int timeoutMs)
    : m_helper(std::move(helper)), m_timeoutMs(timeoutMs)
{
}

std::optional<QString> TesseractRecognizer::code(const QString &tesseract)
{
    for (const auto &[name, code] : names)
        if (tesseract == QLatin1String(name))
            return QString::fromLatin1(code);
    return std::nullopt;
}

std::optional<QString> TesseractRecognizer::tesseractName(const QString &code)
{
    for (const auto &[name, c] : names)
        if (code == QLatin1String(c))
            return QString::fromLatin1(name);
    return std::nullopt;
}

QCoro::Task<QStringList> TesseractRecognizer::supportedLanguages()
{
    if (m_supported)
        co_return *m_supported;
    QProcess process;
    prepare(process, m_helper, {QStringLiteral("--list")});
    QStringList out;
    if (started(&process)) {
        const bool finished = co_await finishedWithin(&process, m_timeoutMs);
        if (finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0) {
            for (const QByteArray &line : process.readAllStandardOutput().split('\n'))
                if (const auto c = code(QString::fromUtf8(line.trimmed())))
                    out << *c;
        } else {
            process.kill();
            process.waitForFinished(1000);
        }
    }
    if (!out.isEmpty())
        m_supported = out; // a failed listing is tried again next time
    co_return out;
}

QCoro::Task<QString> TesseractRecognizer::recognize(QByteArray picture, QStringList languages)
{
    QStringList tesseract;
    for (const QString &language : languages)
        if (const auto name = tesseractName(language))
            tesseract << *name;
    if (tesseract.isEmpty() || picture.isEmpty())
        co_return QString();
    QProcess process;
    prepare(process, m_helper, {tesseract.join(QLatin1Char('+'))});
    if (!started(&process))
        co_return QString();
    process.write(picture);
    process.closeWriteChannel();
    const bool finished = co_await finishedWithin(&process, m_timeoutMs);
    if (!finished) {
        process.kill(); // hung, or too slow to be worth it
        process.waitForFinished(1000);
        co_return QString();
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        co_return QString();
    // Tesseract ends paragraphs with blank lines: lines in reading order, no gaps.
    QStringList lines;
    for (const QString &line : QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n')))
        if (!line.trimmed().isEmpty())
            lines << line.trimmed();
    co_return lines.join(QLatin1Char('\n'));
}

} // namespace zuv
