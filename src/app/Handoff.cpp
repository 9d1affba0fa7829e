#include "app/Handoff.h"

#include "app/WindowOpener.h"
#include "base/Ids.h"
#include "chat/ChatModel.h"
#include "link/AppModel.h"

#include <QFileInfo>
#include <QUrl>

namespace zuv {

void Handoff::start(AppModel &model, ChatModel &chat, WindowOpener &opener, const std::function<void()> &showSetup,
                    QString text, std::vector<OutgoingFile> files)
{
    if (model.pairing().state != AppModel::Pairing::State::paired) {
        if (showSetup)
            showSetup();
        return;
    }
    const QString id = Ids::conversation();
    chat.setHandoff(id, {std::move(text), std::move(files)});
    opener.show(id, std::nullopt);
}

std::optional<QString> Handoff::value(const QStringList &arguments, const QString &flag)
{
    const qsizetype at = arguments.indexOf(flag);
    if (at < 0 || at + 1 >= arguments.size())
        return std::nullopt;
    return arguments[at + 1];
}

QStringList Handoff::resolved(const QStringList &arguments)
{
    QStringList out = arguments;
    for (qsizetype i = 1; i < out.size(); ++i) {
        const QFileInfo info(out[i]);
        if (!out[i].startsWith(QLatin1String("--")) && info.isRelative() && info.isFile())
            out[i] = info.absoluteFilePath();
    }
    return out;
}

std::optional<std::vector<OutgoingFile>> Handoff::files(const QStringList &arguments)
{
    static const QStringList valued = {QStringLiteral("--open-chat"), QStringLiteral("--send-test")};
    std::vector<OutgoingFile> out;
    bool meant = false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString &arg = arguments[i];
        if (arg.startsWith(QLatin1String("--"))) {
            if (valued.contains(arg))
                ++i;
            continue;
        }
        meant = true;
        const QUrl url(arg);
        QString path;
        if (url.isValid() && !url.scheme().isEmpty() && url.scheme().size() > 1) {
            if (!url.isLocalFile())
                continue; // links of other schemes are dropped
            path = url.toLocalFile();
        } else {
            path = arg;
        }
        const QFileInfo info(path);
        if (info.isFile())
            out.emplace_back(info.absoluteFilePath());
    }
    if (!meant)
        return std::nullopt;
    return out;
}

} // namespace zuv
