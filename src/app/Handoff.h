#pragma once

#include "chat/OutgoingFile.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>
#include <vector>

namespace zuv {

class AppModel;
class ChatModel;
class WindowOpener;

// Text and files from outside the app (a second launch, a file opened with Zuv)
// handed to a fresh chat.
struct Handoff {
    // Unpaired: `showSetup` runs and the content is dropped. Paired: the content
    // waits under a new conversation id, which the main window opens.
    static void start(AppModel &model, ChatModel &chat, WindowOpener &opener, const std::function<void()> &showSetup,
                      QString text, std::vector<OutgoingFile> files);

    // The files named among launch arguments: paths and file:// links, in order.
    // Flags, the values of "--open-chat" and "--send-test", and links of any
    // other scheme are not files. None when no argument was meant as a file.
    static std::optional<std::vector<OutgoingFile>> files(const QStringList &arguments);

    // The arguments with relative paths of existing files made absolute, so that
    // they still name the files in the running copy, whose folder differs.
    static QStringList resolved(const QStringList &arguments);

    // The value after `flag`, when the flag is there and is not the last argument.
    static std::optional<QString> value(const QStringList &arguments, const QString &flag);
};

} // namespace zuv
